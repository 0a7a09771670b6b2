#ifndef TANDEM_APP_HOOK_COMMAND_H
#define TANDEM_APP_HOOK_COMMAND_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "link/tloop.h"

namespace tandem::app {

// A command of the user's, run without a shell: the words are the arguments as they are. It has a process group of its
// own, so that a command which takes too long ends with everything that it has started. What it leaves in the
// background when it ends in time stays.
class hook_command_t {
  public:
    static constexpr std::chrono::milliseconds longest = std::chrono::seconds(30);

    // Starts it. `words` is not empty.
    explicit hook_command_t(std::vector<std::string> words, std::chrono::milliseconds limit = longest);
    hook_command_t(const hook_command_t&) = delete;
    hook_command_t& operator=(const hook_command_t&) = delete;
    // Ends what still runs.
    ~hook_command_t();

    // Calls `ended` once on the loop's thread with what went wrong, in one line; not at all when nothing did. The loop
    // outlives this object, which `ended` must not destroy.
    void watch(st_tloop_t* loop, std::function<void(const std::string& fault)> ended);
    // Waits here for the end, and returns what went wrong, in one line; empty when nothing did.
    std::string wait();

  private:
    using clock_t = std::chrono::steady_clock;

    static void on_timer(st_tloop_t* loop, void* timer, void* user);
    bool is_running();
    bool reap();
    void end_group();

    const std::string name_;
    const std::chrono::milliseconds limit_;
    const clock_t::time_point started_ = clock_t::now();
    pid_t child_ = -1;  // none: it has ended, or did not start
    std::string fault_;
    st_tloop_t* loop_ = nullptr;
    void* timer_ = nullptr;
    std::function<void(const std::string&)> ended_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_HOOK_COMMAND_H

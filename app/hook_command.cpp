#include "app/hook_command.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

extern char** environ;

namespace tandem::app {
namespace {

// Between two looks at a command. A descriptor that tells its end would need a kernel newer than many routers have.
constexpr std::chrono::milliseconds look_again = std::chrono::milliseconds(50);
// What cannot be ended even by SIGKILL hangs in the kernel, and is left there.
constexpr std::chrono::milliseconds last_wait = std::chrono::seconds(1);

// This program holds signals back and ignores some; the command starts as from a shell.
int spawn(std::vector<std::string>& words, pid_t& child) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    const int error = posix_spawnp(&child, arguments[0], nullptr, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return error;
}

std::string fault_of(int status) {
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        return code == 0 ? "" : "has failed (exit status " + std::to_string(code) + ")";
    }
    return "was ended by signal " + std::to_string(WTERMSIG(status));
}

}  // namespace

hook_command_t::hook_command_t(std::vector<std::string> words, std::chrono::milliseconds limit)
    : name_(words.front()), limit_(limit) {
    if (const int error = spawn(words, child_); error != 0) {
        child_ = -1;
        fault_ = std::string("cannot be run: ") + strerror(error);
    }
}

hook_command_t::~hook_command_t() {
    if (timer_ != nullptr) loop_->ops->timer_destroy(loop_, timer_);
    if (child_ >= 0) end_group();
}

// True when it has ended.
bool hook_command_t::reap() {
    int status = 0;
    const pid_t got = waitpid(child_, &status, WNOHANG);
    if (got == 0 || (got < 0 && errno == EINTR)) return false;
    child_ = -1;
    if (fault_.empty() && got > 0) fault_ = fault_of(status);
    return true;
}

void hook_command_t::end_group() {
    kill(-child_, SIGKILL);
    for (const auto from = clock_t::now(); !reap() && clock_t::now() - from < last_wait;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    child_ = -1;
}

bool hook_command_t::is_running() {
    if (child_ < 0 || reap()) return false;
    if (clock_t::now() - started_ < limit_) return true;
    fault_ = "took longer than " + std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit_).count()) +
             " s and was ended";
    end_group();
    return false;
}

std::string hook_command_t::wait() {
    while (is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return fault_.empty() ? "" : name_ + " " + fault_;
}

void hook_command_t::watch(st_tloop_t* loop, std::function<void(const std::string&)> ended) {
    loop_ = loop;
    ended_ = std::move(ended);
    const auto period =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(look_again).count());
    timer_ = loop_->ops->timer_create(loop_, &hook_command_t::on_timer, period, period, this);
    if (timer_ != nullptr) loop_->ops->timer_start(loop_, timer_);
}

void hook_command_t::on_timer(st_tloop_t* loop, void* timer, void* user) {
    auto* const self = static_cast<hook_command_t*>(user);
    if (self->is_running()) return;
    self->timer_ = nullptr;
    loop->ops->timer_destroy(loop, timer);
    if (!self->fault_.empty()) self->ended_(self->name_ + " " + self->fault_);
}

}  // namespace tandem::app

#ifndef TANDEM_APP_WATCH_H
#define TANDEM_APP_WATCH_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/standard_streams.h"
#include "app/watch_output.h"
#include "app/watch_rates.h"
#include "app/watch_text.h"
#include "context/default_connection_context.h"
#include "link/tloop.h"

namespace tandem::app {

// Shows the paths of every connection once a second, from a timer of the program's loop. Made only when it was asked
// for. Belongs to the loop's thread and goes before the loop does, but after the link, whose connections it is told of.
class watch_t {
  public:
    // What a connection is called; asked for each time that it is shown. May be a peer's words.
    using label_t = std::function<std::string()>;

    watch_t(st_tloop_t* loop, watch_mode_t mode, watch_role_t role, const standard_streams_t& streams, bool has_log);
    watch_t(const watch_t&) = delete;
    watch_t& operator=(const watch_t&) = delete;
    ~watch_t();

    // From the factory of the link's contexts. The connection is shown from the time when it is authorised until it
    // ends. `label` lives as long as `context`.
    void add(void* instance, void* connection, const std::shared_ptr<default_connection_context_t>& context,
             label_t label);
    // The program has written a line of its own.
    void interrupted() { output_.interrupted(); }

  private:
    struct watched_t {
        uint64_t number;
        void* instance;
        void* connection;
        std::weak_ptr<default_connection_context_t> context;
        std::shared_ptr<congestion_detection> detection;
        label_t label;
        std::chrono::steady_clock::time_point since;
    };

    static void on_timer(st_tloop_t* loop, void* timer, void* user);
    watch_sample_t take_sample();
    // False when the connection is over.
    static bool sample_paths(const watched_t& of, std::vector<path_sample_t>& out);

    st_tloop_t* loop_;
    watch_mode_t mode_;
    watch_role_t role_;
    watch_output_t output_;
    watch_rates_t rates_;
    std::vector<watched_t> watched_;
    uint64_t last_number_ = 0;
    void* timer_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_WATCH_H

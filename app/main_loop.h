#ifndef TANDEM_APP_MAIN_LOOP_H
#define TANDEM_APP_MAIN_LOOP_H

#include "app/file.h"
#include "link/tloop.h"

namespace tandem::app {

// Holds SIGINT and SIGTERM back from every thread, so that only the loop sees them, ignores SIGPIPE, and raises the
// number of descriptors that the process may have to what is allowed. Call it before any thread starts.
void prepare_process();

// The loop of the whole program, run on the main thread: the link, the contexts and the signals all live on it.
class main_loop_t {
  public:
    // Throws failure_t.
    main_loop_t();
    main_loop_t(const main_loop_t&) = delete;
    main_loop_t& operator=(const main_loop_t&) = delete;
    ~main_loop_t();

    st_tloop_t* get() const { return loop_; }
    // Until SIGINT, SIGTERM or stop().
    void run() { loop_->ops->run(loop_); }
    void stop() { loop_->ops->break_loop(loop_, TLOOP_BREAK_ALL); }

  private:
    static void on_signal(st_tloop_t* loop, void* io, int fd, void* user, en_tloop_io_event_t event);

    file_t signals_;
    st_tloop_t* loop_;
    void* signal_io_ = nullptr;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_MAIN_LOOP_H

#ifndef TANDEM_FORWARD_WORKER_GATE_H
#define TANDEM_FORWARD_WORKER_GATE_H

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace tandem {

class advanced_connection_context_t;

// How worker threads reach their context, which may be gone when they want it. Workers share the gate and outlive the
// context at will; closing it waits only for those that are inside.
class worker_gate_t {
  public:
    // Targets can be slow to resolve and peers quick to ask again; this many workers may live at once.
    static constexpr unsigned most_workers = 1024;

    explicit worker_gate_t(advanced_connection_context_t* context) : context_(context) {}
    worker_gate_t(const worker_gate_t&) = delete;
    worker_gate_t& operator=(const worker_gate_t&) = delete;

    // A stay inside the gate: while it lasts the context does, too. Empty when the gate is closed.
    class visit_t {
      public:
        explicit visit_t(worker_gate_t& gate) : gate_(gate), context_(gate.enter()) {}
        visit_t(const visit_t&) = delete;
        visit_t& operator=(const visit_t&) = delete;
        ~visit_t() {
            if (context_) gate_.leave();
        }
        advanced_connection_context_t* context() const { return context_; }

      private:
        worker_gate_t& gate_;
        advanced_connection_context_t* context_;
    };

    // Lets nobody in any more, and returns when nobody but the calling thread is inside. May be called again.
    void close();

    // One more worker, unless there are too many.
    bool admit();
    void dismiss();

  private:
    advanced_connection_context_t* enter();
    void leave();

    std::mutex lock_;
    std::condition_variable left_;
    advanced_connection_context_t* context_;
    std::vector<std::thread::id> inside_;
    unsigned workers_ = 0;
};

}  // namespace tandem

#endif  // TANDEM_FORWARD_WORKER_GATE_H

// One transport instance: what the handle of tndm_create_instance stands for.
//
// Threads. The public functions may be called from any thread; they talk to the loop's thread through the mailbox.
// Everything else belongs to the loop's thread, or to a thread between the loop's enter and leave. `mutex_` guards the
// few members that both sides see; it is never held over a callback, nor while anything else is locked.
//
// Life. The registry and every call under way hold a reference. destroy() cuts the instance off from the loop and the
// mailbox at once; what it owns goes when the last call under way returns.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_INSTANCE_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_INSTANCE_H

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "link/tndm.h"
#include "platform/tndm/endpoint/engine.h"

namespace tndm {

class instance : public driver, public std::enable_shared_from_this<instance> {
  public:
    // Null when the record is not usable.
    static std::shared_ptr<instance> create(const st_tndm_instance_t& record, void* user);
    ~instance() override;
    instance(const instance&) = delete;
    instance& operator=(const instance&) = delete;

    // --- any thread ---
    void* handle() const { return app_.instance; }
    void set_handle(void* handle) { app_.instance = handle; }
    void* user() const { return user_; }
    bool is_client() const;
    int start_client(const std::string& host, uint16_t port, const st_tndm_client_t& record);
    int start_server(int socket, const st_tndm_server_t& record);
    int add_path(const std::string& text);
    int remove_path(const std::string& text);
    // "default" or "redundant", before the start; -1 for anything else, and later.
    int set_schedule(const std::string& name);
    int set_writable_callback(tndm_writable_cb callback);
    int set_problem_callback(tndm_problem_cb callback);
    bool in_loop_thread() const { return loop_->ops->in_loop_thread(loop_) != 0; }
    void destroy();
    // Between enter and leave of the loop, or on its thread.
    void refresh_paths(void* connection_handle);
    // On the loop's thread; null for an unknown handle.
    const connection* find_connection(void* connection_handle) const {
        return engine_ == nullptr ? nullptr : engine_->find(connection_handle);
    }

    // --- driver ---
    pass begin() override;
    bool finish(const pass& p) override;

  private:
    instance(const st_tndm_instance_t& record, ngtcp2_cc_algo congestion, void* user);
    environment make_environment();
    void on_async();
    void on_timer();
    void apply_commands(const pass& p);
    void start(std::unique_ptr<engine> made);

    st_tloop_t* const loop_;
    void* const user_;
    application app_;
    subflow_settings quic_;
    core::limits own_;
    std::shared_ptr<mailbox> commands_ = std::make_shared<mailbox>();
    void* async_ = nullptr;
    std::unique_ptr<wake_timer> timer_;
    batch_receiver receiver_;
    std::vector<uint8_t> buffer_;
    std::vector<command> scratch_;
    std::unique_ptr<engine> engine_;
    bool dead_ = false;
    unsigned depth_ = 0;  // passes under way: a callback may pump the loop again

    mutable std::mutex mutex_;
    bool started_ = false;
    bool client_ = false;
    bool destroyed_ = false;
    std::map<std::string, std::string> paths_;  // name -> text
    control::policy schedule_ = control::policy::sooner_first;
};

}  // namespace tndm

#endif

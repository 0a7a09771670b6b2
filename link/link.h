#ifndef TANDEM_LINK_LINK_H
#define TANDEM_LINK_LINK_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/export.h"
#include "link/options.h"
#include "link/tloop.h"
#include "link/tndm.h"

namespace tandem {

class connection_context_t;

// One end of a link: a transport instance, client or server, on an event loop, and the contexts of its connections.
//
// created -> create() -> running -> destroy() -> created, again and again. `create`, `destroy`,
// `set_problem_handler` and `set_schedule` belong to one thread; `path_add`, `path_del` and the registrations may be
// called from any thread while the link is running. Transport callbacks, and with them the contexts' handlers, run on
// the loop's thread: the link's own, or the one on which the caller runs the loop that it gave.
//
// `mutex_` guards the two maps. It is held while a factory runs (a factory must not register factories) and otherwise
// never while foreign code does.
class TANDEM_API link_t {
  public:
    // Makes the context of a new connection; null refuses the connection.
    using factory_t =
        std::function<std::shared_ptr<connection_context_t>(void* instance, void* connection, const std::string& alpn)>;
    // `problem` is one of TNDM_PROBLEM_*; `text` is one line for a person.
    using problem_handler_t = std::function<void(int problem, const std::string& text)>;

    link_t();
    link_t(const link_t&) = delete;
    link_t& operator=(const link_t&) = delete;
    ~link_t();

    // Starts a client or a server. With a null `loop` the link makes one and runs it on a thread of its own; a caller's
    // loop must outlive the instance. 0, or -1 on any failure: what was made by then stays until destroy(). Refused
    // while an instance exists.
    int create(const options_t& options, st_tloop_t* loop);
    // Ends every connection and frees what create() made. May be repeated; may be called from a callback on the loop's
    // thread. The contexts that are left are closed; the link lets them go when it is created again or destroyed.
    void destroy();

    // A local path (an interface or a local address, as the transport understands it). 0 or -1.
    int path_add(const char* path);
    int path_del(const char* path);

    // An empty factory removes the entry; "*", the key of the second form, is the default of every ALPN without an
    // entry. Always true.
    bool register_connection_context_factory(const std::string& alpn, factory_t factory);
    bool register_connection_context_factory(factory_t factory);

    // Told on the loop's thread why a client has no connection. Set it before create(). A transport may lack this
    // notice.
    void set_problem_handler(problem_handler_t handler);

    // How a client's paths share the work, as the transport names it ("default", "redundant"). Set it before create(),
    // which fails when the transport knows no such schedule.
    void set_schedule(std::string name);

    // Which of its addresses a server listens on: a numeric one, "*" for every IPv4 address (as without a call), "[*]"
    // or "::" for every address of both families. Set it before create(), which fails when it is none of these.
    void set_listen_address(std::string address);
    // The UDP port that a server has, also when it was left to the system (port 0); 0 when it has none.
    uint16_t listen_port() const;

    // The loop thread's body; `link` is a link_t.
    static void tndm_instance_loop(void* link);

    // What the transport calls, on the loop's thread.
    static void tndm_connection_established(void* instance, const st_tndm_connection_id_t* id, void* connection);
    static void tndm_connection_disconnected(void* instance, const st_tndm_connection_id_t* id, void* connection);
    static void tndm_recv_data(void* instance, void* connection, uint64_t stream_id, int fin, const uint8_t* data,
                               uint32_t len, int* out);
    static void tndm_transport_calculate(void* instance, void* connection, uint64_t value_a, uint64_t value_b,
                                         uint64_t value_c, uint64_t value_d, uint64_t value_e);
    static void tndm_stream_writable(void* instance, void* connection, uint64_t stream_id);
    static void tndm_problem(void* instance, int problem, const char* text);
    static int tndm_create_path(void* opaque, const char* path);
    static int tndm_path_broken(void* opaque, const char* path, int socket);

  private:
    using context_ptr = std::shared_ptr<connection_context_t>;

    int open_server_socket() const;
    int start_server();
    int start_client();
    bool start_loop_thread();
    void register_further_callbacks();
    bool hand_on_schedule();
    void close_contexts();
    void forget_contexts();
    void stop_own_loop();
    context_ptr find_context(void* connection);
    context_ptr find_or_make_context(void* instance, void* connection, std::string& key);
    static void open_control_stream(connection_context_t& context, void* instance, void* connection);

    std::map<void*, context_ptr> contexts_;
    std::map<std::string, factory_t> factories_;
    std::mutex mutex_;
    options_t options_;
    std::thread loop_thread_;
    int server_socket_ = -1;
    // The transport keeps the addresses of the records' texts, so the records live as long as the instance.
    st_tndm_instance_t instance_record_ = {};
    st_tloop_t* loop_ = nullptr;
    void* instance_ = nullptr;
    st_tndm_server_t server_record_ = {};
    st_tndm_client_t client_record_ = {};
    bool own_loop_ = false;
    // Touched by the loop thread only: set when that thread itself calls destroy() and so must free the loop on its way
    // out.
    std::shared_ptr<bool> loop_orphaned_;
    problem_handler_t problem_handler_;
    std::string schedule_;  // empty: not told to the transport
    std::string listen_address_;
};

}  // namespace tandem

#endif  // TANDEM_LINK_LINK_H

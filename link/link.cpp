#include "link/link.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "common/address.h"
#include "common/log.h"
#include "context/connection_context.h"

namespace tandem {

link_t::link_t() = default;

link_t::~link_t() {
    destroy();
}

int link_t::create(const options_t& options, st_tloop_t* loop) {
    if (instance_ != nullptr) {
        log_place("create", 796);
        std::puts("Create Tandem Instance - ERROR! Instance is already created!");
        return -1;
    }
    stop_own_loop();
    forget_contexts();
    options_ = options;
    own_loop_ = loop == nullptr;
    loop_ = own_loop_ ? tloop_create("libev", options_.transport_flag, 100000, 0) : loop;
    if (loop_ == nullptr) return -1;
    instance_record_ = {.param_a = options_.transport_param_a,
                        .congestion_control = options_.congestion_control.c_str(),
                        .flag = options_.transport_flag,
                        .param_c = options_.transport_param_c,
                        .param_b = options_.transport_param_b,
                        .loop = loop_};
    instance_ = tndm_create_instance(&instance_record_, this);
    if (instance_ == nullptr) return -1;
    register_further_callbacks();
    if (!hand_on_schedule()) return -1;
    if (own_loop_ && !start_loop_thread()) return -1;
    return options_.is_server != 0 ? start_server() : start_client();
}

// Before the start, so that no notice can be missed.
void link_t::register_further_callbacks() {
    if (tndm_set_writable_callback != nullptr) tndm_set_writable_callback(instance_, tndm_stream_writable);
    if (tndm_set_problem_callback != nullptr && problem_handler_) tndm_set_problem_callback(instance_, tndm_problem);
}

bool link_t::hand_on_schedule() {
    if (schedule_.empty()) return true;
    return tndm_set_schedule != nullptr && tndm_set_schedule(instance_, schedule_.c_str()) == 0;
}

bool link_t::start_loop_thread() {
    loop_orphaned_ = std::make_shared<bool>(false);
    try {
        loop_thread_ = std::thread([this, loop = loop_, orphaned = loop_orphaned_] {
            tndm_instance_loop(this);
            // An orphaned loop's link may be gone.
            if (*orphaned) loop->ops->destroy(loop);
        });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

int link_t::open_server_socket() const {
    const auto port = static_cast<uint16_t>(options_.listen_port);
    sockaddr_storage address;
    bool is_name = false;
    if (t_get_address(listen_address_.c_str(), port, &address, is_name, true) != 0 || is_name) return -1;
    const bool any = listen_address_.empty() || listen_address_.front() == '*' || listen_address_.front() == '[';
    return tndm_open_socket(address.ss_family, port, any ? nullptr : listen_address_.c_str());
}

int link_t::start_server() {
    server_socket_ = open_server_socket();
    if (server_socket_ <= 0) return -1;
    server_record_ = {};
    server_record_.alpn = options_.alpn.c_str();
    server_record_.cert = options_.cert.c_str();
    server_record_.key = options_.key.c_str();
    server_record_.on_established = tndm_connection_established;
    server_record_.on_disconnected = tndm_connection_disconnected;
    server_record_.on_data = tndm_recv_data;
    if (tndm_start_server(instance_, server_socket_, &server_record_) != 0) return -1;
    log_place("create", 884);
    std::printf("TNDM server instance started! (Cert:%s, Key:%s)\n", server_record_.cert, server_record_.key);
    return 0;
}

int link_t::start_client() {
    client_record_ = {};
    std::strncpy(client_record_.text, options_.client_text.c_str(), sizeof(client_record_.text) - 1);
    client_record_.alpn = options_.alpn.c_str();
    client_record_.param = options_.client_param;
    client_record_.calculate_param = options_.transport_calculate_param;
    client_record_.on_established = tndm_connection_established;
    client_record_.on_disconnected = tndm_connection_disconnected;
    client_record_.on_data = tndm_recv_data;
    client_record_.create_path = tndm_create_path;
    client_record_.path_broken = tndm_path_broken;
    if (options_.transport_calculate_param != 0) client_record_.statistics = tndm_transport_calculate;
    const auto port = static_cast<uint16_t>(options_.server_port);
    if (tndm_start_client(instance_, options_.server_host.c_str(), port, &client_record_) != 0) return -1;
    log_place("create", 859);
    std::puts("TNDM client instance started!");
    return 0;
}

void link_t::tndm_instance_loop(void* link) {
    // After the run only the address is used: a callback may have destroyed the link.
    st_tloop_t* loop = link != nullptr ? static_cast<link_t*>(link)->loop_ : nullptr;
    if (loop == nullptr) return;
    log_place("tndm_instance_loop", 573);
    std::printf("TNDM Loop running... [%p]\n", link);
    loop->ops->run(loop);
    log_place("tndm_instance_loop", 575);
    std::printf("TNDM Loop stopped. [%p]\n", link);
}

void link_t::destroy() {
    if (instance_ != nullptr) {
        tndm_destroy_instance(instance_);
        instance_ = nullptr;
        close_contexts();
    }
    stop_own_loop();
    if (server_socket_ > 0) tndm_close_socket(server_socket_);
    server_socket_ = -1;
}

// The contexts that are left may be the application's too. Closed, none deletes a connection of the dead instance; and
// while the loop still lives, their timers are taken off it.
void link_t::close_contexts() {
    std::vector<context_ptr> open;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [connection, context] : contexts_) {
            open.push_back(context);
        }
    }
    for (const context_ptr& context : open) {
        context->closed.exchange(1);
        {
            const std::lock_guard lock(context->cg_mutex);
            context->stop_cg();
        }
        context->stop_status_timer();
    }
}

// A new instance may use an old one's handles again; a context of the old one must not be found under them.
void link_t::forget_contexts() {
    std::map<void*, context_ptr> old;
    const std::lock_guard lock(mutex_);
    old.swap(contexts_);
}

void link_t::stop_own_loop() {
    if (own_loop_ && loop_ != nullptr) {
        const bool on_loop_thread = loop_thread_.get_id() == std::this_thread::get_id();
        if (loop_thread_.joinable()) loop_->ops->break_loop(loop_, TLOOP_BREAK_ALL);
        if (on_loop_thread) {
            *loop_orphaned_ = true;
            loop_thread_.detach();
        } else {
            if (loop_thread_.joinable()) loop_thread_.join();
            loop_->ops->destroy(loop_);
        }
    }
    own_loop_ = false;
    loop_ = nullptr;
}

int link_t::path_add(const char* path) {
    if (path == nullptr) return -1;
    if (instance_ != nullptr && tndm_add_path(instance_, path) == 0) {
        log_place("path_add", 924);
        std::printf("Adding path - Successfully. (%s)\n", path);
        return 0;
    }
    log_place("path_add", 928);
    std::printf("Adding path - Failed! (%s)\n", path);
    return -1;
}

int link_t::path_del(const char* path) {
    if (path == nullptr) return -1;
    log_place("path_del", 937);
    std::printf("Deleting path - %s\n", path);
    if (instance_ != nullptr) tndm_remove_path(instance_, path);
    return 0;
}

bool link_t::register_connection_context_factory(const std::string& alpn, factory_t factory) {
    const std::lock_guard lock(mutex_);
    if (factory) {
        factories_.insert_or_assign(alpn, std::move(factory));
    } else {
        factories_.erase(alpn);
    }
    return true;
}

bool link_t::register_connection_context_factory(factory_t factory) {
    return register_connection_context_factory("*", std::move(factory));
}

void link_t::set_schedule(std::string name) {
    schedule_ = std::move(name);
}

void link_t::set_listen_address(std::string address) {
    listen_address_ = std::move(address);
}

uint16_t link_t::listen_port() const {
    sockaddr_in6 address{};  // the port stands at the same place in both families
    socklen_t length = sizeof(address);
    if (server_socket_ <= 0 || getsockname(server_socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin6_port);
}

void link_t::set_problem_handler(problem_handler_t handler) {
    problem_handler_ = std::move(handler);
}

}  // namespace tandem

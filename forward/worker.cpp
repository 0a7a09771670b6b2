// Workers: they resolve and open what a request names, away from the loop. All but resolving happens inside the gate.
#include <sys/socket.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "common/address.h"
#include "forward/advanced_connection_context.h"
#include "forward/descriptor.h"
#include "forward/message_log.h"
#include "forward/worker_gate.h"

namespace tandem {

namespace {

constexpr const char* task_name = "dynamic_connect_thread_task";

std::string take_option(std::multimap<std::string, std::string>& options, const std::string& key) {
    const auto found = options.find(key);
    if (found == options.end()) return {};
    std::string value = std::move(found->second);
    options.erase(found);
    return value;
}

// Each %ifname% in the values becomes the interface's name; a name that holds it itself is put in once.
void insert_ifname(std::multimap<std::string, std::string>& options, const std::string& ifname) {
    const std::string mark = "%ifname%";
    for (auto& [key, value] : options) {
        for (size_t at = value.find(mark); at != std::string::npos; at = value.find(mark, at + ifname.size())) {
            value.replace(at, mark.size(), ifname);
        }
    }
}

}  // namespace

// What a worker finds out and opens. The stream's id is its own copy, for the record may lose it.
struct advanced_connection_context_t::backend_t {
    uint64_t stream_id = no_stream;
    int fd = -1;
    sockaddr_storage address{};
};

void advanced_connection_context_t::start_worker(const record_t& inst, std::shared_ptr<void> permit) {
    bool started = false;
    {
        std::lock_guard guard(inst->lock);
        // Closed already: nobody would let go of the thread.
        if (inst->state == STATE_CLOSED) return;
        if (gate_->admit()) {
            try {
                inst->connect_thread = std::thread([gate = gate_, inst, permit] {
                    run_worker(gate, inst);
                    gate->dismiss();
                });
                started = true;
            } catch (const std::system_error&) {
                gate_->dismiss();
            }
        }
    }
    if (started) return;
    log_message("on_received_stream_packet", __LINE__, "Backend Connect Task - ERROR! Failed to start a thread!\n");
    request_close(*inst);
    wake(update_async);
}

void advanced_connection_context_t::dynamic_connect_thread_task(record_t record) {
    run_worker(gate_, std::move(record));
}

void advanced_connection_context_t::run_worker(std::shared_ptr<worker_gate_t> gate, record_t record) {
    backend_t backend;
    {
        std::lock_guard guard(record->lock);
        backend.stream_id = record->stream_id;
    }
    bool done = false;
    switch (record->type) {
        case TYPE_TCP:
        case TYPE_UDP:
            done = connect_target(*gate, *record, backend);
            break;
        case TYPE_VPN:
            done = create_vpn(*gate, *record, backend);
            break;
        default:
            return;
    }
    finish_worker(*gate, *record, backend, done);
}

bool advanced_connection_context_t::connect_target(worker_gate_t& gate, const forward_detail& record,
                                                   backend_t& backend) {
    const char* target = record.target_address.c_str();
    const unsigned port = record.target_port;
    log_message(task_name, 2064, "Backend Connect Task - (%s) Resolving target address %s:%u ...\n",
                record.type == TYPE_TCP ? "TCP" : "UDP", target, port);
    bool by_name = false;
    if (t_get_address(target, record.target_port, &backend.address, by_name, false) < 0) {
        log_message(task_name, 2069, "Backend Connect Task - ERROR! Failed to solve address %s:%u\n", target, port);
        return false;
    }
    char text[128] = "";
    t_format_sockaddr_with_port(&backend.address, text, sizeof(text));
    log_message(task_name, 2083, "Backend Connect Task - (%s) Solved address %s:%u => %s\n", by_name ? "NS" : "IP",
                target, port, text);
    return open_target(gate, record, backend, text);
}

bool advanced_connection_context_t::open_target(worker_gate_t& gate, const forward_detail& record, backend_t& backend,
                                                const char* text) {
    const worker_gate_t::visit_t visit(gate);
    advanced_connection_context_t* const context = visit.context();
    if (!context) return false;
    int& fd = backend.fd;
    sockaddr_storage& address = backend.address;
    if (!context->on_target_resolved({backend.stream_id, record.type, record.target_address, record.target_port},
                                     address)) {
        return false;
    }
    if (record.type == TYPE_TCP) {
        fd = context->on_create_tcp_connect_socket(backend.stream_id, &address);
        if (fd < 0) fd = context->open_tcp_connect_socket(&address);
        if (fd < 0) {
            log_message(task_name, 2093, "Backend Connect Task - ERROR! Failed to connect TCP target: %s\n", text);
            return false;
        }
        if (context->lossless()) send_at_once(fd);
        log_message(task_name, 2104, "Backend Connect Task - Connected TCP target: %s\n", text);
    } else {
        fd = context->on_create_udp_connect_socket(backend.stream_id, &address);
        unsigned short any_port = 0;
        if (fd < 0) fd = context->open_udp_socket(address.ss_family == AF_INET6 ? "[*]" : "*", &any_port);
        if (fd < 0) {
            log_message(task_name, 2125, "Backend Connect Task - ERROR! Failed to create UDP socket! Target is: %s\n",
                        text);
            return false;
        }
        log_message(task_name, 2136, "Backend Connect Task - Created UDP socket for target: %s\n", text);
    }
    make_nonblocking(fd);
    return true;
}

bool advanced_connection_context_t::create_vpn(worker_gate_t& gate, const forward_detail& record, backend_t& backend) {
    log_message(task_name, 2150, "Backend Create Task - Create VPN interface with options (%s)\n",
                record.target_address.c_str());
    const worker_gate_t::visit_t visit(gate);
    advanced_connection_context_t* const context = visit.context();
    if (!context) return false;
    int& fd = backend.fd;
    std::multimap<std::string, std::string> options;
    context->parse_if_options(record.target_address, options);
    const std::string mode = take_option(options, "mode") == "tap" ? "tap" : "tun";
    std::string ifname = take_option(options, "ifname");
    fd = context->on_create_vpn_interface(backend.stream_id, options, ifname, mode);
    if (fd < 0) fd = context->open_tuntap_vpn(context->default_tuntap_device(), ifname, mode);
    if (fd < 0) {
        log_message(task_name, 2174,
                    "Backend Create Task - ERROR! Failed to create VPN interface (ifname=%s, mode=%s)\n",
                    ifname.c_str(), mode.c_str());
        return false;
    }
    make_nonblocking(fd);
    insert_ifname(options, ifname);
    if (!context->set_if_options(ifname, options)) {
        log_message(task_name, 2194, "Backend Create Task - ERROR! Failed to set VPN interface options (ifname=%s)\n",
                    ifname.c_str());
        return false;
    }
    log_message(task_name, 2204, "Backend Create Task - Created a new VPN interface fd=(%d) (ifname=%s)\n", fd,
                ifname.c_str());
    return true;
}

// Hands the result over, unless the record was given up or the context is gone.
void advanced_connection_context_t::finish_worker(worker_gate_t& gate, forward_detail& record, const backend_t& backend,
                                                  bool done) {
    const worker_gate_t::visit_t visit(gate);
    std::unique_lock guard(record.lock);
    if (!visit.context() || !record.connect_thread.joinable()) {
        guard.unlock();
        if (backend.fd >= 0) close(backend.fd);
        return;
    }
    record.fd = backend.fd;
    record.peer_address = backend.address;
    // A close that was asked for meanwhile stands.
    int32_t state = record.state;
    while (state != STATE_TO_CLOSE && state != STATE_CLOSED &&
           !record.state.compare_exchange_weak(state, done ? STATE_TO_OPEN : STATE_TO_CLOSE)) {
    }
    guard.unlock();
    visit.context()->wake(visit.context()->update_async);
}

bool advanced_connection_context_t::on_request(const request_t&, permits_t&) {
    return true;
}

bool advanced_connection_context_t::on_target_resolved(const request_t&, const sockaddr_storage&) {
    return true;
}

int advanced_connection_context_t::on_create_tcp_connect_socket(uint64_t, sockaddr_storage*) {
    return -1;
}

int advanced_connection_context_t::on_create_udp_connect_socket(uint64_t, sockaddr_storage*) {
    return -1;
}

int advanced_connection_context_t::on_create_vpn_interface(uint64_t, std::multimap<std::string, std::string>&,
                                                           std::string&, const std::string&) {
    return -1;
}

std::shared_ptr<packet_t> advanced_connection_context_t::on_external_analyse_stream_packet(uint64_t,
                                                                                           std::shared_ptr<packet_t>,
                                                                                           bool, int, bool& handled) {
    handled = false;
    return nullptr;
}

}  // namespace tandem

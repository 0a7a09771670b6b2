#include "app/server_command.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>

#include "app/certificate.h"
#include "app/client_forwards.h"
#include "app/failure.h"
#include "app/file.h"
#include "app/main_loop.h"
#include "app/server_files.h"
#include "app/vpn_server.h"
#include "app/watch.h"
#include "common/address.h"
#include "gateway/gateway_context.h"
#include "link/link.h"

namespace tandem::app {
namespace {

options_t to_options(const server_command_t& command) {
    options_t options;
    options.is_server = 1;
    options.cert = command.cert_file;
    options.key = command.key_file;
    options.listen_port = command.listen.port;
    // What the gateway would refuse need not be opened.
    options.transport_param_a =
        static_cast<uint32_t>(std::min<uint64_t>(command.gateway.limits.client.streams, UINT32_MAX));
    options.alpn = command.link.alpn;
    options.congestion_control = command.link.congestion;
    return options;
}

// A machine may be without IPv6.
std::string listen_address(const server_command_t& command) {
    if (!command.listen.host.empty()) return command.listen.host;
    return file_t(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)) ? "[*]" : "*";
}

// Why the link could not be made. Certificate and key have been checked, so it is mostly the port, which the link does
// not say.
failure_t explain_failure(const server_command_t& command) {
    sockaddr_storage address;
    bool is_name = false;
    t_get_address(listen_address(command).c_str(), command.listen.port, &address, is_name, true);
    const file_t probe(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const std::string port = std::to_string(command.listen.port);
    if (!probe || bind(probe.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return failure_t("cannot start on UDP port " + port + "; the messages above or in the log file say why");
    }
    const char* cure = errno == EADDRINUSE      ? "choose another port, or end the program that has this one"
                       : errno == EADDRNOTAVAIL ? "choose an address of this machine"
                                                : "choose a port above 1023, or run as root";
    return failure_t("--listen: cannot use UDP port " + port + " (" + strerror(errno) + "); " + cure);
}

}  // namespace

int run_server(const server_command_t& command, const standard_streams_t& streams) {
    std::list<client_forwards_t> listeners;
    main_loop_t loop;
    server_files_t files(command);
    check_key_pair(command.cert_file, command.key_file);

    const auto vpn = std::make_shared<vpn_server_t>(std::make_shared<vpn_rules_t>(command.vpn_rules));
    const auto gateway = std::make_shared<gateway_t>(
        loop.get(), gateway_t::settings_t{command.gateway.limits, files.credentials(), files.rules()});
    std::vector<std::string> lines;
    for (const auto& [client, forwards] : command.gateway.reversed) {
        const client_forwards_t& opened = listeners.emplace_back(forwards);
        for (const listening_forward_t& forward : opened.lent())
            gateway->lend(client, forward);
        for (const std::string& line : opened.lines())
            lines.emplace_back(line).append(" of ").append(client);
    }
    std::unique_ptr<watch_t> watch;
    if (command.link.watch != watch_mode_t::none) {
        watch = std::make_unique<watch_t>(loop.get(), command.link.watch, watch_role_t::server, streams,
                                          !command.link.log_file.empty());
    }
    link_t link;
    link.register_connection_context_factory([&](void* instance, void* connection, const std::string&) {
        auto made = gateway_context_t::make(gateway, connection);
        if (!made) return made;
        made->set_vpn_host(vpn);
        if (watch) watch->add(instance, connection, made, [of = made.get()] { return of->client_machine(); });
        return made;
    });
    link.set_listen_address(listen_address(command));
    if (link.create(to_options(command), loop.get()) != 0) {
        link.destroy();
        throw explain_failure(command);
    }
    // With objects on standard output, everything else goes to standard error.
    FILE* const notices = command.link.watch == watch_mode_t::json ? streams.err() : streams.out();
    files.watch(gateway, [&](const std::string& line) { fprintf(streams.err(), "tandem server: %s\n", line.c_str()); });
    for (const std::string& line : lines)
        fprintf(notices, "%s\n", line.c_str());
    fprintf(notices, "listening on UDP port %u\n", unsigned{link.listen_port()});
    loop.run();
    link.destroy();
    return exit_ok;
}

}  // namespace tandem::app

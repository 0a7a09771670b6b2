#include "app/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "app/certificate.h"
#include "app/failure.h"
#include "app/local_path.h"
#include "app/trust.h"
#include "gateway/user_list.h"

namespace tandem::app {
namespace {

constexpr size_t longest_alpn = 255;

// The values as they were typed.
struct typed_t {
    server_command_t server;
    client_command_t client;
    cert_command_t cert;
    std::string host;
    std::string listen = std::to_string(default_port);
    typed_forwards_t forwards;
    typed_gateway_t gateway;
    std::vector<std::string> allowed;
    user_command_t user;
    std::vector<std::string> vpn_rules;
    std::string watch;
};

void add_link_options(CLI::App& command, link_settings_t& link, std::string& watch) {
    command
        .add_option("--secret", link.secret_file, "File of one line, readable by this user only, the same on both ends")
        ->type_name("FILE");
    command.add_option("--alpn", link.alpn, "Protocol name, the same on both ends")
        ->capture_default_str()
        ->type_name("TEXT");
    command.add_option("--congestion", link.congestion, "Congestion control: reno, cubic, bbr or bbr1")
        ->capture_default_str()
        ->type_name("NAME");
    command
        .add_option("--log", link.log_file, "Append the library's messages to this file (otherwise: standard error)")
        ->type_name("FILE");
    command.add_flag("--watch{table}", watch,
                     "Print a table of the paths every second, or with =json an object a line");
}

CLI::App* add_server(CLI::App& app, typed_t& typed) {
    CLI::App* command = app.add_subcommand("server", "Accept clients and connect them to what they forward to");
    command->add_option("--cert", typed.server.cert_file, "Certificate (PEM)")->required()->type_name("FILE");
    command->add_option("--key", typed.server.key_file, "The certificate's private key (PEM)")
        ->required()
        ->type_name("FILE");
    command
        ->add_option("--allow-vpn", typed.vpn_rules,
                     "What a client may have of a VPN interface here, CLIENT;option:values;..., or * for every client; "
                     "nothing without it; repeat it for more")
        ->expected(1)
        ->take_all()
        ->type_name("RULE");
    command->add_option("--listen", typed.listen, "UDP port")->capture_default_str()->type_name("[ADDR:]PORT");
    add_gateway_options(*command, typed.gateway);
    add_link_options(*command, typed.server.link, typed.watch);
    return command;
}

CLI::App* add_client(CLI::App& app, typed_t& typed) {
    CLI::App* command = app.add_subcommand("client", "Connect to a server and forward TCP ports to its side");
    command->add_option("server", typed.host, "The server, HOST[:PORT] or [V6][:PORT]")
        ->required()
        ->type_name("HOST[:PORT]");
    command
        ->add_option("--path", typed.client.paths,
                     "A local address or interface to use, \"NAME;backup:yes\" only while no other works; repeat it to "
                     "bond several")
        ->required()
        ->expected(1)
        ->take_all()
        ->type_name("PATH");
    add_forward_options(*command, typed.forwards);
    command->add_option("--id", typed.client.id, "The name that the server knows this client by")
        ->capture_default_str()
        ->type_name("NAME");
    command
        ->add_option("--allow", typed.allowed,
                     "What the server's --reverse may reach here; nothing without it; repeat it for more")
        ->expected(1)
        ->take_all()
        ->type_name("'tcp|udp|* TARGET PORTS'");
    command
        ->add_option("--trust", typed.client.trust,
                     "How to know the server: pin:HEX, ca:FILE, name:TEXT, insecure:yes, parted by ';'")
        ->type_name("TEXT");
    command
        ->add_option("--schedule", typed.client.schedule,
                     "How the paths share the work: default, or redundant (everything on every path)")
        ->capture_default_str()
        ->type_name("NAME");
    add_link_options(*command, typed.client.link, typed.watch);
    return command;
}

CLI::App* add_cert(CLI::App& app, typed_t& typed) {
    CLI::App* command = app.add_subcommand("cert", "Make a key and a self-signed certificate for a server");
    command->add_option("--out", typed.cert.directory, "Directory for cert.pem and key.pem")
        ->required()
        ->type_name("DIR");
    command->add_option("--name", typed.cert.names, "A host name or address of the server; repeat it for several")
        ->expected(1)
        ->take_all()
        ->type_name("HOST");
    return command;
}

CLI::App* add_user(CLI::App& app, user_command_t& user) {
    CLI::App* command = app.add_subcommand("user", "Add, remove or list the clients that may connect to a server");
    command->require_subcommand(1);
    const auto add = [&](const char* name, const char* help, decltype(user.what) what) {
        CLI::App* const one = command->add_subcommand(name, help);
        one->callback([&user, what] { user.what = what; });
        one->add_option("--users", user.users_file, "The server's file of clients")->required()->type_name("FILE");
        if (what != user_command_t::list) one->add_option("id", user.id, "The client")->required()->type_name("NAME");
        return one;
    };
    add("add", "Let a client in, or give it a new secret; prints the secret", user_command_t::add)
        ->add_option("--secret", user.secret_file, "Take the secret of this file, and print none")
        ->type_name("FILE");
    add("remove", "Let a client in no more; its connections end", user_command_t::remove);
    add("list", "Print the clients", user_command_t::list);
    return command;
}

void check_link(link_settings_t& link, const std::string& watch) {
    static constexpr const char* known[] = {"reno", "cubic", "bbr", "bbr1"};
    if (std::find(std::begin(known), std::end(known), link.congestion) == std::end(known)) {
        throw bad_value("--congestion", link.congestion, "choose reno, cubic, bbr or bbr1");
    }
    if (link.alpn.empty() || link.alpn.size() > longest_alpn)
        throw bad_value("--alpn", link.alpn, "give 1 to 255 bytes");
    if (!watch.empty() && watch != "table" && watch != "json")
        throw bad_value("--watch", watch, "write --watch or --watch=json");
    if (!watch.empty()) link.watch = watch == "json" ? watch_mode_t::json : watch_mode_t::table;
}

server_command_t checked_server(typed_t& typed) {
    check_link(typed.server.link, typed.watch);
    const auto listen = parse_server_listen(typed.listen);
    if (!listen) throw bad_value("--listen", typed.listen, "give a UDP port, or an address of this machine and a port");
    typed.server.listen = *listen;
    typed.server.gateway = checked_gateway(typed.gateway);
    if (typed.server.link.secret_file.empty() == typed.server.gateway.users_file.empty())
        throw failure_t("give either --users or --secret; see tandem server --help", exit_usage);
    for (const std::string& rule : typed.vpn_rules) {
        if (const std::string fault = typed.server.vpn_rules.add(rule); !fault.empty())
            throw bad_value("--allow-vpn", rule, fault);
    }
    return typed.server;
}

void check_paths(const std::vector<std::string>& paths) {
    for (auto path = paths.begin(); path != paths.end(); ++path) {
        if (const std::string fault = path_fault(*path); !fault.empty()) throw bad_value("--path", *path, fault);
        const auto same = [&](const std::string& other) { return path_name(other) == path_name(*path); };
        if (std::any_of(paths.begin(), path, same))
            throw bad_value("--path", *path, "is given twice; name each path once, with all its options");
    }
}

client_command_t checked_client(typed_t& typed) {
    client_command_t& client = typed.client;
    check_link(client.link, typed.watch);
    const auto server = parse_endpoint(typed.host, default_port);
    if (!server)
        throw bad_value("server", typed.host, "write HOST, HOST:PORT or [V6]:PORT, for example gateway.example:14002");
    client.server = *server;
    check_paths(client.paths);
    if (client.schedule != "default" && client.schedule != "redundant")
        throw bad_value("--schedule", client.schedule, "choose default or redundant");
    if (client.link.secret_file.empty()) throw failure_t("--secret is required; see tandem client --help", exit_usage);
    if (!user_list_t::is_id(client.id)) throw bad_value("--id", client.id, "give 1 to 64 letters, digits and -_.@");
    client.rules = checked_rules("allow * ", typed.allowed, "'tcp|udp|* TARGET PORTS', for example 'tcp 127.0.0.1 22'");
    client.forwards = checked_forwards(typed.forwards, client.rules.empty());
    if (const std::string fault = trust_fault(client.trust); !fault.empty())
        throw bad_value("--trust", client.trust, fault);
    return client;
}

cert_command_t checked_cert(const typed_t& typed) {
    if (typed.cert.directory.empty()) throw bad_value("--out", "", "give a directory");
    for (const std::string& name : typed.cert.names) {
        if (!is_certificate_name(name)) throw bad_value("--name", name, "give a host name or a numeric address");
    }
    return typed.cert;
}

user_command_t checked_user(const user_command_t& user) {
    if (user.what != user_command_t::list && !user_list_t::is_id(user.id))
        throw bad_value("id", user.id, "give 1 to 64 letters, digits and -_.@");
    return user;
}

std::string first_line(const std::string& text) {
    return printable(text.substr(0, text.find('\n')), 400);
}

}  // namespace

command_t parse_command_line(int argc, const char* const* argv) {
    typed_t typed;
    CLI::App app("Carries TCP connections over an encrypted link that uses several network paths at once.", "tandem");
    app.set_version_flag("--version", "tandem " TANDEM_VERSION);
    app.require_subcommand(1);
    const CLI::App* server = add_server(app, typed);
    const CLI::App* client = add_client(app, typed);
    add_cert(app, typed);
    const CLI::App* user = add_user(app, typed.user);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return show_text_t{app.help()};
    } catch (const CLI::CallForVersion& version) {
        return show_text_t{std::string(version.what()) + "\n"};
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        if (!chosen.empty()) {
            throw failure_t(first_line(error.what()) + "; see tandem " + chosen.front()->get_name() + " --help",
                            exit_usage);
        }
        throw bad_value("command", argc > 1 ? argv[1] : "", "give server, client, cert or user; see tandem --help");
    }
    if (server->parsed()) return checked_server(typed);
    if (client->parsed()) return checked_client(typed);
    if (user->parsed()) return checked_user(typed.user);
    return checked_cert(typed);
}

}  // namespace tandem::app

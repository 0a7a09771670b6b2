#ifndef TANDEM_APP_COMMAND_LINE_H
#define TANDEM_APP_COMMAND_LINE_H

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "app/endpoint.h"
#include "app/forward_options.h"
#include "app/gateway_options.h"
#include "gateway/vpn_rules.h"

namespace tandem::app {

inline constexpr uint16_t default_port = 14002;

// What --watch prints every second.
enum class watch_mode_t { none, table, json };

// What server and client have in common.
struct link_settings_t {
    std::string secret_file;
    std::string alpn = "tndm";
    std::string congestion = "bbr";
    std::string log_file;  // empty: standard error
    watch_mode_t watch = watch_mode_t::none;
};

struct server_command_t {
    link_settings_t link;
    std::string cert_file;
    std::string key_file;
    endpoint_t listen{"", default_port};  // as parse_server_listen() has it
    vpn_rules_t vpn_rules;
    gateway_settings_t gateway;
};

struct client_command_t {
    link_settings_t link;
    endpoint_t server;
    std::vector<std::string> paths;
    std::string id = "default";
    forwards_t forwards;
    std::vector<std::string> rules;  // what the server may reach here, as lines of rules
    std::string trust;
    std::string schedule = "default";
};

struct cert_command_t {
    std::string directory;
    std::vector<std::string> names;  // none: this machine's name
};

// `secret_file`: with add, the secret to take; empty: a fresh one.
struct user_command_t {
    enum { add, remove, list } what = list;
    std::string users_file;
    std::string id;
    std::string secret_file;
};

// Help or version: `text` is for standard output, and nothing else is to be done.
struct show_text_t {
    std::string text;
};

using command_t = std::variant<show_text_t, server_command_t, client_command_t, cert_command_t, user_command_t>;

// Every value of the result has been checked for form. Throws failure_t (exit code 2).
command_t parse_command_line(int argc, const char* const* argv);

}  // namespace tandem::app

#endif  // TANDEM_APP_COMMAND_LINE_H

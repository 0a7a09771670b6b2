#ifndef TANDEM_APP_GATEWAY_OPTIONS_H
#define TANDEM_APP_GATEWAY_OPTIONS_H

#include <map>
#include <string>
#include <vector>

#include "app/forward_options.h"
#include "gateway/usage.h"

namespace CLI {
class App;
}

namespace tandem::app {

// Who may connect to a server, where clients may go, and how much they may have.
struct gateway_settings_t {
    std::string users_file;                      // empty: the one secret lets in
    std::string rules_file;                      // empty: none
    std::vector<std::string> rules;              // lines of rules, before those of the file
    std::map<std::string, forwards_t> reversed;  // by client: listeners here that lead to its side
    limits_t limits;
};

// The same as it was typed.
struct typed_gateway_t {
    std::string users_file;
    std::string rules_file;
    std::vector<std::string> allowed;
    std::vector<std::string> reversed;
    std::vector<std::string> limits;
};

void add_gateway_options(CLI::App& command, typed_gateway_t& typed);
// Throws failure_t (exit code 2).
gateway_settings_t checked_gateway(const typed_gateway_t& typed);
// Each text behind `prefix` as a line of rules, which has no fault. Throws failure_t (exit code 2).
std::vector<std::string> checked_rules(const std::string& prefix, const std::vector<std::string>& texts,
                                       const char* form);

}  // namespace tandem::app

#endif  // TANDEM_APP_GATEWAY_OPTIONS_H

#ifndef TANDEM_TESTS_E2E_LINK_FIXTURE_H
#define TANDEM_TESTS_E2E_LINK_FIXTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/e2e/network.h"
#include "tests/e2e/process.h"

namespace tandem::test {

// How much a bulk transfer carries: less in builds that are many times slower.
inline constexpr uint64_t bulk_bytes = uint64_t{TANDEM_E2E_BULK_MIB} << 20;

// A certificate, a secret and a UDP port, and the commands that use them. Outlives the processes that it starts: at its
// end it looks into their logs for what a sanitizer has found.
class link_fixture_t {
  public:
    link_fixture_t();
    link_fixture_t(const link_fixture_t&) = delete;
    link_fixture_t& operator=(const link_fixture_t&) = delete;
    ~link_fixture_t();

    // `before` comes before the program, for example a command that enters a namespace.
    process_t start_server(const std::vector<std::string>& before = {}) const;
    // The arguments of a client that forwards a port of the system's choice to `target_port` of 127.0.0.1 at the
    // server's side.
    std::vector<std::string> client_args(uint16_t target_port, const std::string& host,
                                         const std::vector<std::string>& paths) const;
    std::vector<std::string> client_args(uint16_t target_port) const;
    std::vector<std::string> server_args() const;

    uint16_t port() const { return port_; }
    const std::string& pin() const { return pin_; }
    const scratch_t& scratch() const { return scratch_; }

  private:
    scratch_t scratch_;
    std::string secret_;
    std::string pin_;
    uint16_t port_;
};

// Waits until the client says that it forwards, and tells its local port; 0 when that does not come.
uint16_t wait_forward(process_t& client);

// A server, and a client with two paths that forwards to one service. Both end cleanly.
struct running_t {
    explicit running_t(service_t::handler_t handler = echo);
    ~running_t();

    link_fixture_t link;
    service_t service;
    process_t server;
    process_t client;
    uint16_t port = 0;
};

// `args` with the value of `option` replaced.
std::vector<std::string> with(std::vector<std::string> args, const std::string& option, const std::string& value);

std::string program();

}  // namespace tandem::test

#endif  // TANDEM_TESTS_E2E_LINK_FIXTURE_H

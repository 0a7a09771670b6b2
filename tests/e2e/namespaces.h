#ifndef TANDEM_TESTS_E2E_NAMESPACES_H
#define TANDEM_TESTS_E2E_NAMESPACES_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tandem::test {

// Two network namespaces joined by two links, 1 and 2: the client's with the addresses 10.77.1.2 and 10.77.2.2, and the
// server's, which has 10.77.9.1 and is reached over the link of the source address. Needs root; removed with the
// object.
class namespaces_t {
  public:
    namespaces_t();
    namespaces_t(const namespaces_t&) = delete;
    namespaces_t& operator=(const namespaces_t&) = delete;
    ~namespaces_t();

    // Swallows everything on a link without a sign to either end, or carries it again.
    void swallow(int link);
    void carry(int link);
    // Takes the client's end of a link down, which it can see.
    void take_down(int link);
    // Up again, with the routes that the kernel has forgotten meanwhile.
    void bring_up(int link);
    // Gives the client's end of a link another address in place of its own: 10.77.<link>.<host>.
    void change_address(int link, int host);
    // Lets a link carry no more than this, either way.
    void limit(int link, int mbit);

    // Link 2 carries only IPv6 from now on, to fd77:9::1 at the server; in the client's namespace `name` is the
    // server's by both families.
    void make_second_ipv6(const std::string& name);

    // What comes before a command to run it inside.
    std::vector<std::string> in_client() const { return {"ip", "netns", "exec", client_}; }
    std::vector<std::string> in_server() const { return {"ip", "netns", "exec", server_}; }
    // Runs `action` on a thread inside. Sockets that it makes stay there.
    void at_client(const std::function<void()>& action) const { run_inside(client_, action); }
    void at_server(const std::function<void()>& action) const { run_inside(server_, action); }

  private:
    static void run_inside(const std::string& name, const std::function<void()>& action);
    void make_link(const std::string& number) const;
    void add_routes(const std::string& number) const;
    void blackhole(const std::string& change, int link) const;

    std::map<int, int> hosts_;  // link -> last number of the client's address, unless it is 2
    std::string client_;
    std::string server_;
};

}  // namespace tandem::test

#endif  // TANDEM_TESTS_E2E_NAMESPACES_H

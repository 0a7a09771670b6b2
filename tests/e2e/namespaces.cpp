#include "tests/e2e/namespaces.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "app/file.h"
#include "tests/e2e/process.h"

namespace tandem::test {
namespace {

// Runs `ip` with the words of `command`.
void ip(const std::string& command) {
    std::vector<std::string> args = {"ip"};
    std::istringstream words(command);
    for (std::string word; words >> word;)
        args.push_back(word);
    run(args);
}

}  // namespace

namespaces_t::namespaces_t()
    : client_("tandem-c" + std::to_string(getpid())), server_("tandem-s" + std::to_string(getpid())) {
    if (geteuid() != 0) throw std::runtime_error("network namespaces need root: run the tests as root");
    ip("netns add " + client_);
    ip("netns add " + server_);
    ip("-n " + client_ + " link set lo up");
    ip("-n " + server_ + " link set lo up");
    ip("-n " + server_ + " addr add 10.77.9.1/32 dev lo");
    make_link("1");
    make_link("2");
}

namespaces_t::~namespaces_t() {
    std::error_code ignored;
    std::filesystem::remove_all("/etc/netns/" + client_, ignored);
    ip("netns del " + client_);
    ip("netns del " + server_);
}

void namespaces_t::make_link(const std::string& number) const {
    const std::string net = "10.77." + number + ".";
    ip("-n " + client_ + " link add c" + number + " type veth peer name s" + number + " netns " + server_);
    ip("-n " + client_ + " addr add " + net + "2/24 dev c" + number);
    ip("-n " + server_ + " addr add " + net + "1/24 dev s" + number);
    ip("-n " + client_ + " link set c" + number + " up");
    ip("-n " + server_ + " link set s" + number + " up");
    ip("-n " + client_ + " rule add from " + net + "0/24 table 10" + number);
    add_routes(number);
    // The server's address is reached over both links, so neither end may insist on the way that it would take itself.
    for (const std::string& name : {client_, server_}) {
        run({"ip", "netns", "exec", name, "sh", "-c",
             "for f in /proc/sys/net/ipv4/conf/*/rp_filter; do echo 0 >$f; done"});
    }
}

// For what is bound to the link's address, and for what is bound to the link.
void namespaces_t::add_routes(const std::string& number) const {
    const std::string way = " route replace 10.77.9.1/32 via 10.77." + number + ".1 dev c" + number;
    ip("-n " + client_ + way + " table 10" + number);
    ip("-n " + client_ + way + " metric " + number);
}

void namespaces_t::make_second_ipv6(const std::string& name) {
    ip("-n " + client_ + " addr flush dev c2");
    ip("-n " + server_ + " addr flush dev s2");
    ip("-n " + client_ + " addr add fd77:2::2/64 dev c2 nodad");
    ip("-n " + server_ + " addr add fd77:2::1/64 dev s2 nodad");
    ip("-n " + server_ + " addr add fd77:9::1/128 dev lo nodad");
    ip("-n " + client_ + " route add fd77:9::1/128 via fd77:2::1 dev c2");
    // `ip netns exec` puts it in the place of /etc/hosts.
    std::filesystem::create_directories("/etc/netns/" + client_);
    std::ofstream("/etc/netns/" + client_ + "/hosts") << "fd77:9::1 " << name << "\n10.77.9.1 " << name << "\n";
}

void namespaces_t::swallow(int link) {
    blackhole("add", link);
}

void namespaces_t::carry(int link) {
    blackhole("del", link);
}

void namespaces_t::blackhole(const std::string& change, int link) const {
    const std::string number = std::to_string(link);
    ip("-n " + client_ + " rule " + change + " iif c" + number + " blackhole pref 1");
    ip("-n " + server_ + " rule " + change + " iif s" + number + " blackhole pref 1");
}

void namespaces_t::take_down(int link) {
    ip("-n " + client_ + " link set c" + std::to_string(link) + " down");
}

void namespaces_t::bring_up(int link) {
    ip("-n " + client_ + " link set c" + std::to_string(link) + " up");
    add_routes(std::to_string(link));
}

void namespaces_t::change_address(int link, int host) {
    const std::string number = std::to_string(link);
    int& now = hosts_.try_emplace(link, 2).first->second;
    const auto address = [&](int last) {
        return "10.77." + number + "." + std::to_string(last) + "/24 dev c" + number;
    };
    ip("-n " + client_ + " addr del " + address(now));
    ip("-n " + client_ + " addr add " + address(host));
    add_routes(number);
    now = host;
}

void namespaces_t::limit(int link, int mbit) {
    const std::string number = std::to_string(link);
    const std::string how = " root tbf rate " + std::to_string(mbit) + "mbit burst 64kb latency 30ms";
    run({"sh", "-c", "tc -n " + client_ + " qdisc add dev c" + number + how});
    run({"sh", "-c", "tc -n " + server_ + " qdisc add dev s" + number + how});
}

void namespaces_t::run_inside(const std::string& name, const std::function<void()>& action) {
    std::exception_ptr failure;
    std::thread([&] {
        try {
            const app::file_t inside(open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
            if (setns(inside.fd(), CLONE_NEWNET) != 0) throw std::runtime_error("cannot enter " + name);
            action();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace tandem::test

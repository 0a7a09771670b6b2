// Every text that somebody writes: options of an interface, addresses, whom to trust, paths, rules.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "common/address.h"
#include "forward/advanced_connection_context.h"
#include "fuzz/input.h"
#include "gateway/ip_network.h"
#include "gateway/target_rules.h"
#include "gateway/text_file.h"
#include "gateway/user_file.h"
#include "gateway/vpn_rules.h"
#include "platform/tndm/endpoint/path_spec.h"
#include "platform/tndm/quic/credentials.h"
#include "platform/tndm/udp/address.h"
#include "tests/fake/fake_platform.h"

namespace {

using fuzz::require;

void read_if_options(const std::string& text) {
    static auto* const loop = new fake::loop_t;
    static auto* const context = new tandem::advanced_connection_context_t(loop->handle(), "", "", "", "");
    std::multimap<std::string, std::string> options;
    require(context->parse_if_options(text, options) == static_cast<int>(options.size()), "entries are counted");
    size_t bytes = 0;
    for (const auto& [key, value] : options) {
        require(!key.empty() && key.find_first_of(": \t\r\n") == std::string::npos, "a key is one word");
        bytes += key.size() + value.size() + 1;
    }
    require(bytes <= text.size(), "options are made of the text's own characters");
}

void read_address(const std::string& text, uint16_t port) {
    sockaddr_storage address{};
    bool is_name = false;
    if (t_get_address(text.c_str(), port, &address, is_name, true) != 0 || is_name) return;
    char small[24];
    char large[128];
    t_format_sockaddr_with_port(&address, small, sizeof(small));
    uint16_t told = 0;
    require(t_format_sockaddr(&address, large, sizeof(large), &told) == 1, "what was read can be written");
    require(told == port, "the port stays");
    sockaddr_storage again{};
    require(t_get_address(large, port, &again, is_name, true) == 0 && !is_name, "what was written can be read");
}

void read_endpoint(const std::string& text, uint16_t port) {
    const auto read = tndm::endpoint::parse(text, port);
    if (!read) return;
    require(read->port() == port && !read->text().empty(), "an endpoint keeps its port");
    const auto again = tndm::endpoint::parse(read->host_text(), port);
    require(again && *again == *read, "an endpoint that was written can be read");
}

void read_path(const std::string& text) {
    std::string error;
    const auto path = tndm::path_spec::parse(text, error);
    require(path.has_value() == error.empty(), "a text that is no path is told why");
    require(error.find('\n') == std::string::npos, "an error is one line");
    if (path) require(tndm::path_spec::name_of(path->text) == path->name, "a path has one name");
}

void read_trust(std::string text) {
    // Its files could be anything on this machine.
    std::erase(text, '/');
    std::string error;
    const auto trust = tndm::trust::parse(text, "server.test", error);
    require(trust.has_value() == error.empty(), "a text that names no trust is told why");
    require(error.find('\n') == std::string::npos, "an error is one line");
    if (trust) require(!(trust->insecure() && trust->needs_authorities()), "nobody is asked about anybody");
}

void read_network(const std::string& text) {
    const auto network = tandem::ip_network_t::parse(text);
    if (!network) return;
    require(network->prefix <= network->bits() && network->contains(*network), "a network holds itself");
    require(network->base().contains(*network) && network->contains(network->base()),
            "and is what it is without hosts");
    const auto again = tandem::ip_network_t::parse(network->text());
    require(again && again->contains(*network) && network->contains(*again), "a network that was written can be read");
}

// A text that is read from its front.
class reader {
  public:
    explicit reader(const std::string& text) : text_(text) {}

    bool more() const { return at_ < text_.size(); }
    // Up to `end`, which is skipped.
    std::string up_to(char end) {
        const size_t stop = std::min(text_.find(end, at_), text_.size());
        std::string found = text_.substr(at_, stop - at_);
        at_ = std::min(stop + 1, text_.size());
        return found;
    }

  private:
    const std::string& text_;
    size_t at_ = 0;
};

// Lines of rules; behind an empty line what a client asks for: `CLIENT OPTION VALUE`.
void read_rules(const std::string& text) {
    tandem::vpn_rules_t rules;
    reader from(text);
    while (from.more()) {
        const std::string line = from.up_to('\n');
        if (line.empty()) break;
        require(rules.add(line).find('\n') == std::string::npos, "an error is one line");
    }
    while (from.more()) {
        const std::string client = from.up_to(' ');
        const std::string option = from.up_to(' ');
        const bool allowed = rules.allows_vpn_option(client, option, from.up_to('\n'));
        require(!allowed || !rules.empty(), "without a rule nothing is allowed");
        require(!allowed || (option != "up" && option != "down"), "no rule allows a command");
    }
}

// Likewise: `CLIENT KIND PORT ADDRESS HOST`.
void read_target_rules(const std::string& text) {
    using tandem::target_rules_t;
    target_rules_t rules(target_rules_t::without_rules_t::deny);
    target_rules_t all_at_once(target_rules_t::without_rules_t::deny);
    reader from(text);
    std::string lines;
    std::string fault;
    while (from.more() && fault.empty()) {
        const std::string line = from.up_to('\n');
        if (line.empty()) break;
        fault = rules.add(line);
        require(fault.find_first_of(std::string_view("\n\r\x1b\0", 4)) == std::string::npos, "an error is one line");
        lines += line + '\n';
    }
    require(all_at_once.add_all(lines).empty() == fault.empty(), "a text is read as its lines are");
    require(all_at_once.empty() == rules.empty(), "up to the first fault");
    while (from.more()) {
        tandem::target_t target{from.up_to(' '), from.up_to(' '), {}, 0};
        target.port = static_cast<uint16_t>(std::strtoul(from.up_to(' ').c_str(), nullptr, 10));
        sockaddr_storage read{};
        bool is_name = false;
        const std::string address = from.up_to(' ');
        target.host = from.up_to('\n');
        if (t_get_address(address.c_str(), target.port, &read, is_name, true) != 0 || is_name) continue;
        const auto plain = tandem::plain_address(read);
        require(plain && plain->prefix == plain->bits(), "an address is one address");
        const bool allowed = rules.allows(target, *plain);
        require(!allowed || !rules.empty(), "without a rule nothing is allowed");
        require(!allowed || rules.may_resolve(target), "what is allowed may be looked up");
        require(all_at_once.allows(target, *plain) == allowed, "the same rules allow the same");
    }
}

// Lines of a list of users, with what came of it written and read again.
void read_users(const std::string& text) {
    tandem::user_list_t users;
    const std::string fault = users.read(text);
    require(fault.find_first_of(std::string_view("\n\r\x1b\0", 4)) == std::string::npos, "an error is one line");
    require(fault.empty() || users.users().empty(), "a faulty list changes nothing");
    for (const auto& [id, hash] : users.users()) {
        require(tandem::user_list_t::is_id(id), "every user has an id");
        require(hash.find_first_of(std::string_view(" \t\r\n\0", 5)) == std::string::npos, "a hash is one word");
        require(users.still_holds({id, hash}), "who is there is there");
        require(!users.still_holds({id, hash + "x"}), "and with that hash only");
    }
    tandem::user_list_t again;
    require(again.read(users.text()).empty() && again.users() == users.users(), "a list that was written can be read");
}

// The same list as a file, read and changed.
void read_user_file(const std::string& text) {
    static const std::string path = "/dev/shm/tandem-fuzz-users." + std::to_string(getpid());
    const auto write = [&] {
        const tandem::descriptor_t file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        return file && ::write(file.fd(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    };
    require(write(), "the file is there");
    tandem::user_list_t in_memory;
    tandem::user_list_t in_file;
    const bool good = in_memory.read(text).empty();
    require(tandem::read_user_file(path, in_file).empty() == good, "a file is read as its text is");
    const std::string fault = tandem::change_user_file(path, [](tandem::user_list_t& users) {
        users.remove("nobody-of-that-name");
        return std::string();
    });
    require(fault.empty() == good, "what can be read can be changed");
    tandem::user_list_t changed;
    require(
        !good || (tandem::read_user_file(path, changed).empty() && changed.users().size() <= in_file.users().size()),
        "what was changed can be read");
    unlink(path.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::be_quiet();
    fuzz::input in(data, size);
    const uint32_t kind = in.below(10);
    const std::string text = fuzz::input::as_text(in.rest());
    switch (kind) {
        case 0:
            read_if_options(text);
            break;
        case 1:
            read_address(text, static_cast<uint16_t>(text.size() * 257));
            break;
        case 2:
            read_endpoint(text, static_cast<uint16_t>(text.size() * 257));
            break;
        case 3:
            read_path(text);
            break;
        case 4:
            read_trust(text);
            break;
        case 5:
            read_network(text);
            break;
        case 6:
            read_rules(text);
            break;
        case 7:
            read_target_rules(text);
            break;
        case 8:
            read_users(text);
            break;
        default:
            read_user_file(text);
    }
    return 0;
}

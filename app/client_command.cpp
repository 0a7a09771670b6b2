#include "app/client_command.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "app/client_forwards.h"
#include "app/failure.h"
#include "app/local_path.h"
#include "app/main_loop.h"
#include "app/secret_file.h"
#include "app/trust.h"
#include "app/watch.h"
#include "gateway/client_context.h"
#include "gateway/doorkeeper.h"
#include "link/link.h"

namespace tandem::app {
namespace {

options_t to_options(const client_command_t& command) {
    options_t options;
    options.server_host = command.server.host;
    options.server_port = command.server.port;
    options.client_text = command.trust;
    options.alpn = command.link.alpn;
    options.congestion_control = command.link.congestion;
    return options;
}

identity_t to_identity(const client_command_t& command) {
    char machine[256] = {};
    if (gethostname(machine, sizeof(machine) - 1) != 0) machine[0] = 0;
    return {command.id, read_secret_file(command.link.secret_file), "tandem/" TANDEM_VERSION, machine};
}

// What the server may open here.
client_context_t::guard_t to_guard(const client_command_t& command) {
    target_rules_t rules(target_rules_t::without_rules_t::deny);
    for (const std::string& line : command.rules)
        rules.add(line);
    return {std::make_shared<rule_book_t>(std::move(rules)), std::make_shared<refusals_t>()};
}

// The forwards, none of which may lead the link into itself.
forwards_t checked_forwards(const client_command_t& command) {
    std::vector<std::string> paths;
    for (const std::string& path : command.paths)
        paths.push_back(path_name(path));
    for (const std::string& address : numeric_addresses(command.server.host)) {
        const std::string fault = swallowed_server(command.forwards, address, paths);
        if (!fault.empty()) throw failure_t("--vpn: " + fault, exit_usage);
    }
    return command.forwards;
}

// One run of the client. Everything happens on the main thread: the observer's calls and the problems come from inside
// run().
class client_t : public client_observer_t {
  public:
    client_t(const client_command_t& command, const standard_streams_t& streams);
    client_t(const client_t&) = delete;
    client_t& operator=(const client_t&) = delete;

    int run();

  private:
    void on_authorized() override;
    void on_refused(int code, const std::string& message) override;
    void on_disconnected(bool was_authorized) override;
    void on_vpn_answered(int fd, bool carries) override;
    void on_problem(int problem, const std::string& text);
    void fail(const std::string& line);
    void say(const std::string& line) const;
    void tell(const std::string& line) const;
    void start();

    const client_command_t& command_;
    const standard_streams_t& streams_;
    const identity_t identity_;
    // Each ends before what its callbacks use, the link first.
    main_loop_t loop_;
    std::unique_ptr<watch_t> watch_;  // null when it was not asked for
    client_forwards_t forwards_;
    const client_context_t::guard_t guard_;
    bool was_authorized_ = false;    // ever
    bool reported_problem_ = false;  // since the last time that the server let us in
    bool stopping_ = false;
    std::optional<std::string> failure_;
    std::set<int> refused_vpns_;  // of which that was said
    link_t link_;
};

client_t::client_t(const client_command_t& command, const standard_streams_t& streams)
    : command_(command),
      streams_(streams),
      identity_(to_identity(command)),
      forwards_(checked_forwards(command), [this](const std::string& fault) { say(fault); }),
      guard_(to_guard(command)) {}

// Of trouble.
void client_t::say(const std::string& line) const {
    fprintf(streams_.err(), "tandem client: %s\n", line.c_str());
    if (watch_) watch_->interrupted();
}

// Of what was asked for; with objects on standard output it goes to standard error.
void client_t::tell(const std::string& line) const {
    FILE* const out = command_.link.watch == watch_mode_t::json ? streams_.err() : streams_.out();
    fprintf(out, "%s\n", line.c_str());
    if (watch_) watch_->interrupted();
}

void client_t::start() {
    if (command_.link.watch != watch_mode_t::none) {
        watch_ = std::make_unique<watch_t>(loop_.get(), command_.link.watch, watch_role_t::client, streams_,
                                           !command_.link.log_file.empty());
    }
    link_.register_connection_context_factory([this](void* instance, void* connection, const std::string&) {
        auto made = std::make_shared<client_context_t>(loop_.get(), identity_, forwards_.lent(), *this, guard_);
        if (watch_) watch_->add(instance, connection, made, [this] { return command_.server.text(); });
        return made;
    });
    link_.set_problem_handler([this](int problem, const std::string& text) { on_problem(problem, text); });
    link_.set_schedule(command_.schedule);
    if (link_.create(to_options(command_), loop_.get()) != 0) {
        const std::string authorities = trust_authority_file(command_.trust);
        if (authorities.empty()) {
            throw failure_t("cannot start the link to " + command_.server.text() +
                            "; the messages above or in the log file say why");
        }
        throw failure_t("--trust: cannot use " + printable(authorities) +
                        " as authorities; give a PEM file of certificates that this user can read");
    }
    for (const std::string& path : command_.paths) {
        if (link_.path_add(path.c_str()) != 0) {
            throw failure_t("--path: cannot use " + path +
                            "; give a local address or the name of an interface, and only ;backup:yes behind it");
        }
        if (!is_path_present(path_name(path))) say("path " + path + " is not there now; it is used once it comes");
    }
}

int client_t::run() {
    start();
    loop_.run();
    stopping_ = true;
    link_.destroy();
    if (failure_) throw failure_t(*failure_);
    return exit_ok;
}

void client_t::on_authorized() {
    reported_problem_ = false;
    refused_vpns_.clear();
    forwards_.connected(loop_.get());
    if (was_authorized_) {
        tell("reconnected");
        return;
    }
    was_authorized_ = true;
    for (const std::string& line : forwards_.lines())
        tell(line);
    if (forwards_.lines().empty()) tell("connected");
}

void client_t::on_refused(int code, const std::string& message) {
    const std::string reason = message.empty() ? "code " + std::to_string(code) : printable(message);
    if (code == verdict_t::try_later) {
        if (!std::exchange(reported_problem_, true)) say("the server refused this client (" + reason + "); trying on");
        return;
    }
    fail("the server refused this client (" + reason +
         "); give --secret the line that the server has for it, and --id the name");
}

void client_t::on_disconnected(bool was_authorized) {
    if (was_authorized && !stopping_) say("the connection is lost; connecting again");
}

// Asked again and again; said once a connection.
void client_t::on_vpn_answered(int fd, bool carries) {
    const std::string name = forwards_.name_of(fd);
    if (carries) {
        if (refused_vpns_.erase(fd) != 0) say("the VPN forward " + name + " carries now");
    } else if (refused_vpns_.insert(fd).second) {
        say("the server ended the VPN forward " + name + " before it carried anything (its log tells why); trying on");
    }
}

void client_t::on_problem(int problem, const std::string& text) {
    const std::string what = printable(text);
    const std::string server = command_.server.text();
    // What would have been wrong from the start is the user's to mend; a link that has worked is kept alive whatever
    // happens to it.
    if (!was_authorized_ && problem == TNDM_PROBLEM_CERTIFICATE) {
        return fail("the certificate of " + server + " is not trusted (" + what +
                    "); give --trust the pin that `tandem cert` printed there");
    }
    if (!was_authorized_ && problem == TNDM_PROBLEM_NAME) {
        return fail("the server's name " + command_.server.host + " does not resolve (" + what +
                    "); correct it, or give an address");
    }
    if (!was_authorized_ && problem == TNDM_PROBLEM_REFUSED) {
        return fail("the server " + server + " does not take this connection (" + what +
                    "); see that --alpn is the same on both ends");
    }
    if (reported_problem_) return;
    reported_problem_ = true;
    say("no connection to " + server + " (" + what + "); trying on");
}

void client_t::fail(const std::string& line) {
    if (!failure_) failure_ = line;
    loop_.stop();
}

}  // namespace

int run_client(const client_command_t& command, const standard_streams_t& streams) {
    client_t client(command, streams);
    return client.run();
}

}  // namespace tandem::app

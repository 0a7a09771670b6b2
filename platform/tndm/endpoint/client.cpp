#include "platform/tndm/endpoint/client.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/tndm/endpoint/client_lane.h"

namespace tndm {

namespace {

using std::chrono::milliseconds;

// A server that has answered the handshake but not the greeting or the join within this time does not want us on this
// subflow.
constexpr auto answer_time = std::chrono::seconds(5);
constexpr milliseconds first_pause{200};
// A connection that has lived this long was a good one: the next try is not held back.
constexpr auto good_life = std::chrono::seconds(5);
// Likewise a lane.
constexpr auto good_lane = std::chrono::seconds(1);
constexpr int batches_at_once = 4;

const core::schedule& schedule_of(control::policy named) {
    return named == control::policy::redundant ? core::redundant() : core::sooner_first();
}

}  // namespace

client::client(const environment& env, target to) : engine(env), target_(std::move(to)), resolver_(env.commands) {
    resolver_.start(target_.host, target_.port);
}

client::~client() {
    paths_.clear();
    greeter_.reset();
    clear();
}

// --- reading ---

void client::readable(const std::shared_ptr<lane>& from) {
    for (int i = 0; i < batches_at_once && from->watcher != nullptr; ++i) {
        const pass p = env_.drive.begin();
        const int messages = receive(*from, p);
        if (!env_.drive.finish(p) || messages < static_cast<int>(batch_receiver::message_count)) {
            return;
        }
    }
}

int client::receive(lane& from, const pass& p) {
    const int messages = env_.receiver.receive(from.fd(), [&](const received_datagram& datagram) {
        // Only the server is listened to, and to the library the path is the one that the subflow was opened on.
        if (datagram.remote == from.flow().remote()) {
            from.flow().read(datagram.data, from.flow().local(), from.flow().remote(), datagram.ecn, p.now);
        }
    });
    if (messages != 0) {
        touch(from);
    }
    return messages;
}

void client::read_sockets(const pass& p) {
    for (const path& each : paths_) {
        for (const auto& of : {each.current, each.fresh}) {
            if (of != nullptr && of->watcher != nullptr) {
                receive(*of, p);
            }
        }
    }
}

// --- paths ---

void client::apply_own(command& asked, const pass& p) {
    switch (asked.what) {
        case command::kind::add_path:
            add_path(asked.text, p);
            break;
        case command::kind::remove_path:
            remove_path(asked.text, p);
            break;
        case command::kind::resolved: {
            const auto answer = resolver_.take();
            if (!answer.found.empty()) {
                servers_ = answer.found;
            } else if (servers_.empty()) {
                rest_ = longer_pause(rest_);
                rest_until_ = p.now + rest_;
                tell_problem(TNDM_PROBLEM_NAME, answer.error);
            }
            break;
        }
        default:
            break;
    }
}

// Closes a carrier and forgets it.
void client::abandon(const std::shared_ptr<lane>& of, close_code code, const pass& p) {
    const auto keep = of;
    if (greeter_ == keep) {
        greeter_.reset();
    }
    if (path* on = path_of(*keep)) {
        (on->current == keep ? on->current : on->fresh).reset();
    }
    keep->close(code, p);
    keep->watcher.reset();
    const bool was_joined = keep->joined() != nullptr;
    drop(*keep, p);
    if (was_joined && connection_ != nullptr) {
        gone_lanes_.push_back(keep->number);
        tell_gone();
    }
}

// The server would send on over a lost lane until it has been silent for long enough: it is told over another one, or
// over the next that joins.
void client::tell_gone() {
    for (const auto& [of, owned] : carriers()) {
        lane& by = static_cast<lane&>(*of);
        const core::lane* answers = by.joined() == nullptr ? nullptr : by.joined()->lane_of(by);
        if (answers == nullptr || answers->suspect() || by.flow().ended()) {
            continue;
        }
        for (const uint32_t number : std::exchange(gone_lanes_, {})) {
            by.flow().send(control::gone{number});
        }
        return;
    }
}

// --- handshakes ---

void client::advance(const std::shared_ptr<carrier>& of, const pass& p) {
    const auto from = std::static_pointer_cast<lane>(of);
    if (from->at == lane::stage::handshake && from->flow().handshake_completed()) {
        from->at = lane::stage::waiting;
        from->give_up = core::never;
    }
    while (!from->flow().ended()) {
        const auto message = from->flow().next_message();
        if (!message) {
            break;
        }
        if (const auto* welcome = std::get_if<control::welcome>(&*message);
            welcome != nullptr && from->at == lane::stage::greeting) {
            on_welcome(*from, *welcome, p);
        } else if (std::holds_alternative<control::joined>(*message) && from->at == lane::stage::joining) {
            on_joined(*from, p);
        } else {
            abandon(from, close_code::violation, p);
            return;
        }
    }
    if (from->flow().ended() || from->broken()) {
        on_end(*from, p);
    }
}

void client::advance_own(const pass& p) {
    if (env_.dead) {
        return;
    }
    if (servers_.empty()) {
        if (p.now >= rest_until_) {
            resolver_.start(target_.host, target_.port);
        }
        return;
    }
    if (connection_ == nullptr && p.now < rest_until_) {
        return;
    }
    // Callbacks may ask for paths to be added or removed, but that comes through the mailbox: `paths_` does not change
    // meanwhile.
    for (path& each : paths_) {
        for (const auto& of : {each.current, each.fresh}) {
            if (of != nullptr && p.now >= of->give_up) {
                const std::string remote = of->flow().remote().text();
                failed(each, true, p);
                abandon(of, close_code::subflow_only, p);
                if (servers_.size() > 1 && connection_ == nullptr) {
                    tell_problem(TNDM_PROBLEM_UNREACHABLE, remote + " over " + each.named.name + ": no answer");
                    if (env_.dead) {
                        return;
                    }
                }
            } else if (of != nullptr && connection_ != nullptr && of->at == lane::stage::waiting) {
                join(*of, p);
            }
        }
        restart_unheard(each, p);
        open_where_wanted(each, p);
        if (env_.dead) {
            return;
        }
    }
    if (connection_ == nullptr && greeter_ == nullptr) {
        greet(p);
    }
}

void client::greet(const pass& p) {
    for (const path& each : paths_) {
        if (each.current == nullptr || each.current->at != lane::stage::waiting) {
            continue;
        }
        greeter_ = each.current;
        greeter_->at = lane::stage::greeting;
        greeter_->give_up = p.now + answer_time;
        greeter_->flow().send(control::hello{
            each.named.name,
            {static_cast<uint32_t>(env_.own.streams), env_.own.stream_window, env_.own.connection_window},
            static_cast<uint32_t>(target_.linger.count()),
            greeter_->number,
            greeter_->backup,
            target_.schedule});
        touch(*greeter_);
        return;
    }
}

void client::on_welcome(lane& of, const control::welcome& welcome, const pass& p) {
    core::limits peer;
    peer.streams = std::min<uint64_t>(welcome.limits.streams, 1 << 20);
    peer.stream_window = std::min<uint64_t>(welcome.limits.stream_window, core::wire::varint_max / 2);
    peer.connection_window = std::min<uint64_t>(welcome.limits.connection_window, core::wire::varint_max / 2);
    const connection::setup how{core::role::client, welcome.id,       welcome.join_secret,          env_.own, peer,
                                target_.linger,     of.flow().alpn(), schedule_of(target_.schedule)};
    connection_ = &establish(std::make_unique<connection>(how, env_.commands, p.now));
    connection_->set_path_wishes([this] { return wishes(); });
    connected_at_ = p.now;
    greeter_.reset();
    of.at = lane::stage::joined;
    of.joined_at = p.now;
    of.give_up = core::never;
    of.flow().send(control::ready{});
    add_lane(of, p);
    if (path* on = path_of(of)) {
        on->pause = milliseconds(0);
        on->tries = 0;
        on->between_restarts = core::duration::zero();
    }
}

void client::add_lane(lane& of, const pass& p) {
    if (!has_joined_at(of.flow().remote())) {
        joined_at_.push_back(of.flow().remote());
    }
    connection_->add(of, true, of.backup, p.now);
}

bool client::has_joined_at(const endpoint& address) const {
    return std::find(joined_at_.begin(), joined_at_.end(), address) != joined_at_.end();
}

void client::join(lane& of, const pass& p) {
    std::array<uint8_t, 32> binding;
    if (!of.flow().tls().exporter(control::join_exporter_label, {}, binding)) {
        of.give_up = p.now;
        return;
    }
    of.at = lane::stage::joining;
    of.give_up = p.now + answer_time;
    of.flow().send(control::join{of.path(), connection_->id(), join_proof(connection_->join_secret(), binding),
                                 of.number, of.backup});
    touch(of);
}

void client::on_joined(lane& of, const pass& p) {
    of.at = lane::stage::joined;
    of.joined_at = p.now;
    of.give_up = core::never;
    of.flow().send(control::ready{});
    add_lane(of, p);
    tell_gone();
    touch(*connection_);
    path* on = path_of(of);
    if (on == nullptr) {
        return;
    }
    on->pause = milliseconds(0);
    on->tries = 0;
    on->between_restarts = core::duration::zero();
    if (on->fresh.get() == &of) {
        const auto old = std::exchange(on->current, std::exchange(on->fresh, nullptr));
        if (old != nullptr) {
            abandon(old, close_code::subflow_only, p);
        }
    }
}

// --- endings ---

void client::on_end(lane& of, const pass& p) {
    const auto keep = std::static_pointer_cast<lane>(carriers().at(&of));
    const auto ending = of.flow().ended().value_or(subflow::ending{.reason = "the socket has failed"});
    const bool was_joined = of.at == lane::stage::joined;
    keep->close(close_code::subflow_only, p);  // while the socket is still ours
    if (connection_ != nullptr && ending.code == close_code::join_refused && has_joined_at(of.flow().remote())) {
        // The server has forgotten the connection: there is nothing to wait for. (At another of its name's addresses
        // another machine may answer, which has never known it.) A stateless reset tells that only of one subflow (the
        // server may have ended it, and its goodbye was lost); the next join will find out.
        connection_->end(close_code::bundle_closed);
        touch(*connection_);
    } else if (was_joined && connection_ != nullptr &&
               (ending.code == close_code::bundle_closed || ending.code == close_code::violation)) {
        connection_->end(*ending.code);
        touch(*connection_);
    }
    if (path* on = path_of(of)) {
        if (!was_joined || p.now - of.joined_at < good_lane) {
            failed(*on, false, p);  // or a server that takes lanes only to end them would be asked without end
        } else {
            on->next_try = p.now;
            on->wanting = true;
        }
        if (!ending.by_peer) {
            give_back(*on, *keep);
        }
    }
    if (env_.dead) {
        return;
    }
    abandon(keep, close_code::subflow_only, p);
    if (!of.flow().tls().certificate_error().empty()) {
        tell_problem(TNDM_PROBLEM_CERTIFICATE, ending.reason);
    } else if (connection_ == nullptr) {
        tell_problem(ending.by_peer ? TNDM_PROBLEM_REFUSED : TNDM_PROBLEM_UNREACHABLE,
                     of.flow().remote().text() + " over " + of.path() + ": " + ending.reason);
    }
}

void client::tell_problem(int problem, const std::string& text) {
    if (env_.app.on_problem != nullptr && !env_.dead) {
        env_.app.on_problem(env_.app.instance, problem, text.c_str());
    }
}

// The connection is over: the next one starts with new subflows, after a pause that grows while connections are short.
void client::retire(connection& over, close_code code, const pass& p) {
    if (&over != connection_) {
        return;
    }
    connection_ = nullptr;
    joined_at_.clear();
    gone_lanes_.clear();
    greeter_.reset();
    rest_ = p.now - connected_at_ >= good_life ? first_pause : longer_pause(rest_);
    rest_until_ = p.now + rest_;
    servers_.clear();
    for (path& each : paths_) {
        for (const auto& of : {each.current, each.fresh}) {
            if (of != nullptr) {
                abandon(of, code, p);
            }
        }
        each.next_try = p.now;
        each.wanting = true;
        each.pause = milliseconds(0);
    }
}

core::instant client::own_deadline() const {
    core::instant next = network_ != nullptr ? network_->deadline() : core::never;
    if (servers_.empty()) {
        return resolver_.busy() ? next : std::min(next, rest_until_);
    }
    for (const path& each : paths_) {
        for (const auto& of : {each.current, each.fresh}) {
            next = of == nullptr ? next : std::min(next, of->give_up);
        }
        const core::instant try_at = std::min(each.restart_at, each.wanting ? each.next_try : core::never);
        next = std::min(next, std::max(try_at, connection_ == nullptr ? rest_until_ : try_at));
    }
    return next;
}

void client::close_all(const pass& p) {
    for (const auto& [of, owned] : carriers()) {
        of->close(close_code::bundle_closed, p);
    }
}

void client::stop_watching() {
    network_.reset();
    for (const auto& [of, owned] : carriers()) {
        static_cast<lane&>(*of).watcher.reset();
    }
}

}  // namespace tndm

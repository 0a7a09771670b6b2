#include "platform/tndm/endpoint/client.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "platform/tndm/udp/socket.h"

namespace tndm {

namespace {

using std::chrono::milliseconds;

// A server that has answered the handshake but not the greeting or the join within this time does not want us on this
// subflow.
constexpr auto answer_time = std::chrono::seconds(5);
// Pauses between tries double up to a bound.
constexpr milliseconds first_pause{200};
constexpr milliseconds longest_pause{5000};
// A connection that has lived this long was a good one: the next try is not held back.
constexpr auto good_life = std::chrono::seconds(5);
constexpr int batches_at_once = 4;

milliseconds longer(milliseconds pause) {
    return std::clamp(2 * pause, first_pause, longest_pause);
}

}  // namespace

// A carrier with a socket of its own, which goes back to the application when it has failed.
class client::lane final : public carrier {
  public:
    enum class stage { handshake, waiting, greeting, joining, joined };

    lane(const std::string& path, int fd) : carrier(path, fd, sender_, false), fd_(fd) {}
    ~lane() override {
        set_flow(nullptr);
        if (fd_ > 0) {
            ::close(fd_);
        }
    }
    int fd() const { return fd_; }
    // The socket is somebody else's from now on.
    int release_socket() {
        watcher.reset();
        return std::exchange(fd_, -1);
    }

    stage at = stage::handshake;
    core::instant give_up = core::never;
    std::unique_ptr<io_watcher> watcher;

  private:
    int fd_;
    batch_sender sender_;
};

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
            server_ = answer.found;
            if (server_.empty()) {
                rest_ = longer(rest_);
                rest_until_ = p.now + rest_;
                tell_problem(TNDM_PROBLEM_NAME, answer.error);
            }
            break;
        }
        default:
            break;
    }
}

void client::add_path(const std::string& text, const pass& p) {
    path added;
    added.text = text;
    added.next_try = p.now;
    added.wanting = true;
    paths_.push_back(std::move(added));
}

void client::remove_path(const std::string& text, const pass& p) {
    const auto found = std::find_if(paths_.begin(), paths_.end(), [&](const path& each) { return each.text == text; });
    if (found == paths_.end()) {
        return;
    }
    const path gone = std::move(*found);
    paths_.erase(found);
    for (const auto& of : {gone.current, gone.fresh}) {
        if (of != nullptr) {
            abandon(of, close_code::subflow_only, p);
        }
    }
}

client::path* client::path_of(const lane& of) {
    const auto found = std::find_if(paths_.begin(), paths_.end(), [&](const path& each) {
        return each.current.get() == &of || each.fresh.get() == &of;
    });
    return found == paths_.end() ? nullptr : &*found;
}

std::shared_ptr<client::lane> client::open(path& on, const pass& p) {
    const int fd = env_.app.create_path != nullptr ? env_.app.create_path(env_.app.instance, on.text.c_str()) : -1;
    if (env_.dead || fd <= 0) {
        if (fd > 0) {
            ::close(fd);
        }
        return nullptr;
    }
    auto made = std::make_shared<lane>(on.text, fd);
    std::string error;
    auto tls = tls_session::create_client(target_.credentials, target_.alpn, error);
    if (tls == nullptr) {
        tell_problem(TNDM_PROBLEM_CERTIFICATE, error);
        return nullptr;
    }
    made->set_flow(subflow::create_client(env_.quic, std::move(tls), local_endpoint(fd), server_, p.now));
    if (!made->has_flow()) {
        return nullptr;
    }
    made->watcher = std::make_unique<io_watcher>(env_.loop, fd, [this, weak = std::weak_ptr(made)] {
        if (const auto from = weak.lock()) {
            readable(from);
        }
    });
    track(made);
    return made;
}

void client::open_where_wanted(path& on, const pass& p) {
    const bool silent = on.current != nullptr && on.current->joined() != nullptr &&
                        on.current->joined()->lane_of(*on.current) != nullptr &&
                        on.current->joined()->lane_of(*on.current)->wants_fresh_carrier(p.now);
    if (on.fresh != nullptr && on.current != nullptr && !silent) {
        // The old subflow answers again.
        abandon(std::exchange(on.fresh, nullptr), close_code::subflow_only, p);
    }
    on.wanting = on.current == nullptr || (silent && on.fresh == nullptr);
    if (!on.wanting || p.now < on.next_try) {
        return;
    }
    on.wanting = false;
    auto made = open(on, p);
    if (made == nullptr) {
        failed(on, p);
    } else if (on.current == nullptr) {
        on.current = std::move(made);
    } else {
        on.fresh = std::move(made);
    }
}

void client::failed(path& on, const pass& p) {
    on.wanting = true;
    on.pause = longer(on.pause);
    on.next_try = p.now + on.pause;
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
    drop(*keep, p);
}

// --- handshakes ---

void client::advance(const std::shared_ptr<carrier>& of, const pass& p) {
    const auto from = std::static_pointer_cast<lane>(of);
    if (from->at == lane::stage::handshake && from->flow().handshake_completed()) {
        from->at = lane::stage::waiting;
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
    if (server_.empty()) {
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
                failed(each, p);
                abandon(of, close_code::subflow_only, p);
            } else if (of != nullptr && connection_ != nullptr && of->at == lane::stage::waiting) {
                join(*of, p);
            }
        }
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
            each.text.substr(0, each.text.find(';')),
            {static_cast<uint32_t>(env_.own.streams), env_.own.stream_window, env_.own.connection_window},
            static_cast<uint32_t>(target_.linger.count())});
        touch(*greeter_);
        return;
    }
}

void client::on_welcome(lane& of, const control::welcome& welcome, const pass& p) {
    core::limits peer;
    peer.streams = std::min<uint64_t>(welcome.limits.streams, 1 << 20);
    peer.stream_window = std::min<uint64_t>(welcome.limits.stream_window, core::wire::varint_max / 2);
    peer.connection_window = std::min<uint64_t>(welcome.limits.connection_window, core::wire::varint_max / 2);
    const connection::setup how{core::role::client, welcome.id,      welcome.join_secret, env_.own, peer,
                                target_.linger,     of.flow().alpn()};
    connection_ = &establish(std::make_unique<connection>(how, env_.commands, p.now));
    connection_->set_path_wishes([this] { return wishes(); });
    connected_at_ = p.now;
    greeter_.reset();
    of.at = lane::stage::joined;
    of.give_up = core::never;
    of.flow().send(control::ready{});
    connection_->add(of, true, p.now);
    if (path* on = path_of(of)) {
        on->pause = milliseconds(0);
    }
}

void client::join(lane& of, const pass& p) {
    std::array<uint8_t, 32> binding;
    if (!of.flow().tls().exporter(control::join_exporter_label, {}, binding)) {
        of.give_up = p.now;
        return;
    }
    of.at = lane::stage::joining;
    of.give_up = p.now + answer_time;
    of.flow().send(control::join{of.path().substr(0, of.path().find(';')), connection_->id(),
                                 join_proof(connection_->join_secret(), binding)});
    touch(of);
}

void client::on_joined(lane& of, const pass& p) {
    of.at = lane::stage::joined;
    of.give_up = core::never;
    of.flow().send(control::ready{});
    connection_->add(of, true, p.now);
    touch(*connection_);
    path* on = path_of(of);
    if (on == nullptr) {
        return;
    }
    on->pause = milliseconds(0);
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
    if (connection_ != nullptr && (ending.code == close_code::join_refused || (ending.reset && is_last(of)))) {
        // The server has forgotten the connection: there is nothing to wait for. A reset alone tells that only of this
        // subflow; while another one answers, the next join will find out.
        connection_->end(close_code::bundle_closed);
        touch(*connection_);
    } else if (was_joined && connection_ != nullptr &&
               (ending.code == close_code::bundle_closed || ending.code == close_code::violation)) {
        connection_->end(*ending.code);
        touch(*connection_);
    }
    if (path* on = path_of(of)) {
        if (!was_joined) {
            failed(*on, p);
        } else {
            on->next_try = p.now;
            on->wanting = true;
        }
        if (env_.app.path_broken != nullptr && !ending.by_peer) {
            const int fd = keep->release_socket();
            env_.app.path_broken(env_.app.instance, on->text.c_str(), fd);
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
                     server_.text() + " over " + of.path() + ": " + ending.reason);
    }
}

// No other lane of the connection answers.
bool client::is_last(const lane& of) const {
    const auto& all = connection_->carriers();
    return std::none_of(all.begin(), all.end(), [&](const carrier* each) {
        const core::lane* other = each == &of ? nullptr : connection_->lane_of(*each);
        return other != nullptr && !other->suspect();
    });
}

// What each path is while no subflow of its own has joined: on its way, not tried yet, or waiting for its next try.
std::vector<path_book::wish> client::wishes() const {
    std::vector<path_book::wish> all;
    for (const path& each : paths_) {
        const bool opening = each.current != nullptr || each.fresh != nullptr;
        const bool untried = each.pause == milliseconds(0);
        all.push_back({each.text.substr(0, each.text.find(';')), opening   ? TNDM_PATH_CONNECTING
                                                                 : untried ? TNDM_PATH_IDLE
                                                                           : TNDM_PATH_DEAD});
    }
    return all;
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
    greeter_.reset();
    rest_ = p.now - connected_at_ >= good_life ? first_pause : longer(rest_);
    rest_until_ = p.now + rest_;
    server_ = endpoint();
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
    if (server_.empty()) {
        return resolver_.busy() ? core::never : rest_until_;
    }
    core::instant next = core::never;
    for (const path& each : paths_) {
        for (const auto& of : {each.current, each.fresh}) {
            next = of == nullptr ? next : std::min(next, of->give_up);
        }
        if (each.wanting) {
            next = std::min(next, std::max(each.next_try, connection_ == nullptr ? rest_until_ : each.next_try));
        }
    }
    return next;
}

void client::close_all(const pass& p) {
    for (const auto& [of, owned] : carriers()) {
        of->close(close_code::bundle_closed, p);
    }
}

void client::stop_watching() {
    for (const auto& [of, owned] : carriers()) {
        static_cast<lane&>(*of).watcher.reset();
    }
}

}  // namespace tndm

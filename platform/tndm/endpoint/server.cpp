#include "platform/tndm/endpoint/server.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "platform/tndm/udp/socket.h"

namespace tndm {

namespace {

// Handshakes and connections that may be open at all.
constexpr size_t max_handshakes = 1024;
constexpr size_t max_carriers = 16384;
constexpr size_t max_connections = 8192;  // those without a working lane included
constexpr size_t max_lanes_of_a_bundle = 32;
// A client that has not joined a bundle by then will not.
constexpr auto patience = std::chrono::seconds(10);
// One that has joined and does not say that it is ready has lost the path meanwhile: nothing may be sent on the lane,
// so nothing else would show it.
constexpr auto ready_time = std::chrono::seconds(5);
// How long a lane may wait for the QUIC library to ask whether its path is back; the back-off doubles each time.
constexpr auto longest_stuck = std::chrono::seconds(1);
// Batches of datagrams that are read before the loop gets its turn.
constexpr int batches_at_once = 4;
constexpr auto longest_linger = std::chrono::seconds(120);
constexpr size_t smallest_first_packet = 1200;

std::string key_of(const uint8_t* id, size_t length) {
    return {reinterpret_cast<const char*>(id), length};
}

// Nothing that a peer grants may overflow the wire's integers, and at least the control stream must fit.
core::limits sane(const control::granted& told) {
    core::limits made;
    made.streams = std::min<uint64_t>(told.streams, 1 << 20);
    made.stream_window = std::min<uint64_t>(told.stream_window, core::wire::varint_max / 2);
    made.connection_window = std::min<uint64_t>(told.connection_window, core::wire::varint_max / 2);
    return made;
}

}  // namespace

class server::lane final : public carrier, public id_registrar {
  public:
    lane(server& owner, int fd, batch_sender& sender, bool many_addresses)
        : carrier({}, fd, sender, many_addresses), owner_(owner) {}
    ~lane() override {
        set_flow(nullptr);
        for (const std::string& id : ids_) {
            owner_.ids_.erase(id);
        }
    }
    void add_id(const ngtcp2_cid& id) override {
        auto key = key_of(id.data, id.datalen);
        if (owner_.ids_.emplace(key, this).second) {
            ids_.insert(std::move(key));
        }
    }
    void remove_id(const ngtcp2_cid& id) override {
        const auto key = key_of(id.data, id.datalen);
        if (ids_.erase(key) != 0) {
            owner_.ids_.erase(key);
        }
    }
    void reset_token(const ngtcp2_cid& id, std::span<uint8_t, NGTCP2_STATELESS_RESET_TOKENLEN> token) override {
        const auto& key = owner_.credentials_->reset_key();
        ngtcp2_crypto_generate_stateless_reset_token(token.data(), key.data(), key.size(), &id);
    }

    ngtcp2_cid first_id{};  // what the client calls us until it has heard of our own id
    bool counted = true;    // stands in `handshakes_`
    core::instant give_up = core::never;
    uint32_t number = 0;  // which the client has given it
    bool heard_when_stuck = false;

  private:
    server& owner_;
    std::set<std::string> ids_;
};

server::server(const environment& env, int socket, std::shared_ptr<const server_credentials> credentials,
               std::string alpn)
    : engine(env),
      socket_(socket),
      bound_(local_endpoint(socket)),
      credentials_(std::move(credentials)),
      alpn_(std::move(alpn)) {
    port_ = bound_.port();
    watcher_ = std::make_unique<io_watcher>(env.loop, socket, [this] { readable(); });
}

server::~server() {
    clear();
}

// --- reading ---

void server::readable() {
    for (int i = 0; i < batches_at_once; ++i) {
        const pass p = env_.drive.begin();
        const int messages = receive(p);
        if (!env_.drive.finish(p) || messages < static_cast<int>(batch_receiver::message_count)) {
            return;
        }
    }
}

void server::read_sockets(const pass& p) {
    receive(p);
}

int server::receive(const pass& p) {
    return env_.receiver.receive(socket_, [&](const received_datagram& datagram) { on_datagram(datagram, p); });
}

void server::on_datagram(const received_datagram& datagram, const pass& p) {
    ngtcp2_version_cid ids;
    const int result =
        ngtcp2_pkt_decode_version_cid(&ids, datagram.data.data(), datagram.data.size(), subflow::server_id_length);
    if (result == NGTCP2_ERR_VERSION_NEGOTIATION) {
        if (datagram.data.size() >= smallest_first_packet) {
            send_version_negotiation(datagram.local, datagram.remote, ids);
        }
        return;
    }
    if (result != 0) {
        return;
    }
    const auto found = ids_.find(key_of(ids.dcid, ids.dcidlen));
    if (found == ids_.end()) {
        on_unknown(datagram, ids, p);
        return;
    }
    endpoint local = datagram.local.empty() ? bound_ : datagram.local;
    local.set_port(port_);
    lane& to = *found->second;
    to.flow().read(datagram.data, local, datagram.remote, datagram.ecn, p.now);
    to.heard_when_stuck =
        to.joined() != nullptr && to.joined()->lane_of(to) != nullptr && to.joined()->lane_of(to)->stuck();
    touch(to);
}

void server::on_unknown(const received_datagram& datagram, const ngtcp2_version_cid& ids, const pass& p) {
    endpoint local = datagram.local.empty() ? bound_ : datagram.local;
    local.set_port(port_);
    ngtcp2_pkt_hd head;
    if (ids.version == 0) {
        send_stateless_reset(local, datagram.remote, ids, datagram.data.size(), p);
    } else if (ngtcp2_accept(&head, datagram.data.data(), datagram.data.size()) == 0 &&
               head.version == NGTCP2_PROTO_VER_V1) {
        accept(datagram, local, head, p);
    }
}

// --- new clients ---

void server::accept(const received_datagram& datagram, const endpoint& local, const ngtcp2_pkt_hd& head,
                    const pass& p) {
    if (handshakes_ >= max_handshakes || carriers().size() >= max_carriers) {
        return;
    }
    subflow::first_packet first{head.version, head.scid, head.dcid, std::nullopt, {}};
    if (!check_token(local, datagram.remote, head, first, p)) {
        return;
    }
    std::string error;
    auto tls = tls_session::create_server(credentials_, alpn_, error);
    if (tls == nullptr) {
        return;
    }
    auto made = std::make_shared<lane>(*this, socket_, sender_, bound_.is_wildcard());
    made->set_flow(subflow::create_server(env_.quic, std::move(tls), local, datagram.remote, first, *made, p.now));
    if (!made->has_flow()) {
        return;
    }
    made->first_id = head.dcid;
    made->add_id(head.dcid);
    ++handshakes_;
    lane& to = *made;
    wait_for(to, p.now + patience);
    track(std::move(made));
    to.flow().read(datagram.data, local, datagram.remote, datagram.ecn, p.now);
}

// --- handshakes and joins ---

void server::advance(const std::shared_ptr<carrier>& of, const pass& p) {
    lane& from = static_cast<lane&>(*of);
    if (from.first_id.datalen != 0 && from.flow().handshake_completed()) {
        from.remove_id(from.first_id);
        from.first_id.datalen = 0;
    }
    if (!from.counted && from.give_up != core::never && from.flow().may_send()) {
        wait_for(from, core::never);
    }
    while (!from.flow().ended()) {
        const auto message = from.flow().next_message();
        if (!message) {
            break;
        }
        if (const auto* hello = std::get_if<control::hello>(&*message); hello != nullptr && from.joined() == nullptr) {
            on_hello(from, *hello, p);
        } else if (const auto* join = std::get_if<control::join>(&*message);
                   join != nullptr && from.joined() == nullptr) {
            on_join(from, *join, p);
        } else if (const auto* gone = std::get_if<control::gone>(&*message);
                   gone != nullptr && from.joined() != nullptr) {
            on_gone(from, *gone, p);
        } else {
            if (from.joined() != nullptr) {
                from.joined()->end(close_code::violation);
            }
            end(from, close_code::violation, p);
            return;
        }
    }
    if (from.heard_when_stuck && !from.flow().ended()) {
        part_with(from, p);
        return;
    }
    if (from.flow().ended() || from.broken()) {
        const auto ending = from.flow().ended().value_or(subflow::ending{.reason = "the socket has failed"});
        const bool whole = ending.code == close_code::bundle_closed || ending.code == close_code::violation;
        if (connection* const to = from.joined(); to != nullptr && whole) {
            to->end(*ending.code);
        }
        end(from, close_code::subflow_only, p);
    }
}

// A full table must not keep newcomers out for the sake of clients that have vanished: the one that has been without
// any subflow longest goes.
bool server::give_up_orphan() {
    connection* longest = nullptr;
    for (const auto& [handle, each] : connections()) {
        if (each->carriers().empty() && !each->ended() &&
            (longest == nullptr || each->orphan_since() < longest->orphan_since())) {
            longest = each.get();
        }
    }
    if (longest != nullptr) {
        longest->end(close_code::bundle_closed);
        touch(*longest);
    }
    return longest != nullptr;
}

void server::on_hello(lane& of, const control::hello& hello, const pass& p) {
    if (connections().size() >= max_connections && !give_up_orphan()) {
        end(of, close_code::busy, p);
        return;
    }
    connection::setup how{core::role::server,
                          {},
                          {},
                          env_.own,
                          sane(hello.limits),
                          std::clamp<std::chrono::seconds>(std::chrono::seconds(hello.linger_seconds),
                                                           std::chrono::seconds(1), longest_linger),
                          of.flow().alpn(),
                          hello.schedule == control::policy::redundant ? core::redundant() : core::sooner_first()};
    random_nonce(how.id);
    random_bytes(how.join_secret.span());
    connection& made = establish(std::make_unique<connection>(how, env_.commands, p.now));
    bundles_.emplace(made.id(), &made);
    of.set_path(hello.path);
    of.number = hello.lane;
    made.add(of, false, hello.backup, p.now);
    settle(of, p);
    of.flow().send(control::welcome{
        how.id,
        how.join_secret,
        {static_cast<uint32_t>(env_.own.streams), env_.own.stream_window, env_.own.connection_window}});
}

void server::on_join(lane& of, const control::join& join, const pass& p) {
    const auto found = bundles_.find(join.id);
    std::array<uint8_t, 32> binding;
    if (found == bundles_.end() || found->second->ended() ||
        !of.flow().tls().exporter(control::join_exporter_label, {}, binding) ||
        !constant_time_equal(join_proof(found->second->join_secret(), binding), join.proof)) {
        end(of, close_code::join_refused, p);
        return;
    }
    if (found->second->carriers().size() >= max_lanes_of_a_bundle) {
        end(of, close_code::lanes_full, p);
        return;
    }
    of.set_path(join.path);
    of.number = join.lane;
    replace_dark_lane(*found->second, join.path, p);
    found->second->add(of, false, join.backup, p.now);
    settle(of, p);
    of.flow().send(control::joined{});
    touch(*found->second);
}

// A client that comes again over a path has given up its old subflow there, although that one's goodbye may never
// arrive.
void server::replace_dark_lane(connection& of, const std::string& path, const pass& p) {
    const auto carriers_now = of.carriers();
    for (carrier* old : carriers_now) {
        const core::lane* dark = of.lane_of(*old);
        if (old->path() == path && dark != nullptr && dark->suspect()) {
            end(static_cast<lane&>(*old), close_code::subflow_only, p);
        }
    }
}

// The client has lost that one of its lanes, and says so over another.
void server::on_gone(lane& by, const control::gone& gone, const pass& p) {
    connection& of = *by.joined();
    const auto found = std::find_if(of.carriers().begin(), of.carriers().end(), [&](carrier* each) {
        return each != &by && static_cast<lane&>(*each).number == gone.lane;
    });
    if (found != of.carriers().end()) {
        end(static_cast<lane&>(**found), close_code::subflow_only, p);
    }
}

void server::wait_for(lane& of, core::instant until) {
    impatience_.erase({of.give_up, &of});
    of.give_up = until;
    if (until != core::never) {
        impatience_.emplace(until, &of);
    }
}

// The carrier has found its bundle: it is no handshake any more.
void server::settle(lane& of, const pass& p) {
    if (std::exchange(of.counted, false)) {
        --handshakes_;
    }
    wait_for(of, p.now + ready_time);
}

void server::end(lane& of, close_code code, const pass& p) {
    if (std::exchange(of.counted, false)) {
        --handshakes_;
    }
    wait_for(of, core::never);
    of.close(code, p);
    drop(of, p);
}

// Ends a lane that cannot ask whether its path is back: its client opens another as soon as it hears of that.
void server::part_with(lane& of, const pass& p) {
    of.flow().close(close_code::subflow_only, p.now, p.buffer, [&](const outgoing_batch& batch) {
        answer(batch.local, batch.remote, batch.data);
        farewells_.add({batch.data.begin(), batch.data.end()}, batch.local, batch.remote, p.now);
        return true;
    });
    end(of, close_code::subflow_only, p);
}

void server::on_time_of(connection& of, const pass& p) {
    const auto all = of.carriers();
    for (carrier* each : all) {
        const core::lane* lane_of = of.lane_of(*each);
        if (lane_of != nullptr && lane_of->stuck() && p.now - lane_of->waiting_since() >= longest_stuck) {
            part_with(static_cast<lane&>(*each), p);
        }
    }
}

void server::on_own_time(const pass& p) {
    farewells_.repeat(p.now, [this](const endpoint& local, const endpoint& remote, std::span<const uint8_t> datagram) {
        answer(local, remote, datagram);
    });
    while (!impatience_.empty() && impatience_.begin()->first <= p.now) {
        end(*impatience_.begin()->second, close_code::subflow_only, p);
    }
}

core::instant server::own_deadline() const {
    return std::min(farewells_.deadline(), impatience_.empty() ? core::never : impatience_.begin()->first);
}

void server::retire(connection& over, close_code code, const pass& p) {
    bundles_.erase(over.id());
    while (!over.carriers().empty()) {
        end(static_cast<lane&>(*over.carriers().front()), code, p);
    }
}

void server::close_all(const pass& p) {
    for (const auto& [of, owned] : carriers()) {
        of->close(close_code::bundle_closed, p);
    }
}

}  // namespace tndm

#include "tests/core/simulator.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tndm::sim {

using namespace std::chrono_literals;
using core::buffer;

namespace {

constexpr uint64_t period = 65521;  // a prime, so that bytes in the wrong place do not look right

// Two periods of noise, so that any run of up to a period is one piece of it.
const uint8_t* pattern(core::role writer, uint64_t stream, uint64_t offset) {
    static const std::vector<uint8_t> noise = [] {
        std::vector<uint8_t> made(2 * period);
        dice d(0x7a11);
        for (uint64_t i = 0; i < period; ++i) {
            made[i] = made[i + period] = static_cast<uint8_t>(d.roll());
        }
        return made;
    }();
    return noise.data() + (offset + stream * 7919 + (writer == core::role::server ? 31337 : 0)) % period;
}

}  // namespace

host::host(core::role role, const core::limits& own, const core::limits& peer) : bundle(role, own, peer), role_(role) {}

void host::deliver_all(instant now) {
    most_held = std::max(most_held, bundle.bytes_held());
    const core::role writer = role_ == core::role::client ? core::role::server : core::role::client;
    while (bundle.take_delivery(delivery_, now)) {
        inbox& in = received[delivery_.stream];
        const auto& bytes = delivery_.bytes;
        if (in.ended) {
            complaint_ = "bytes behind the end of stream " + std::to_string(delivery_.stream);
        }
        if (bytes.empty() && !delivery_.last) {
            complaint_ = "an empty delivery";
        }
        for (size_t done = 0; done < bytes.size();) {
            const size_t run = std::min<size_t>(bytes.size() - done, period);
            if (std::memcmp(&bytes[done], pattern(writer, delivery_.stream, in.bytes + done), run) != 0) {
                complaint_ = "wrong bytes on stream " + std::to_string(delivery_.stream);
            }
            done += run;
        }
        in.bytes += bytes.size();
        in.ended = delivery_.last;
        in.last_at = now;
        total_received += bytes.size();
        log.push_back({now, delivery_.stream, bytes.size(), delivery_.last});
    }
    const auto over = bundle.take_closed();
    closed.insert(closed.end(), over.begin(), over.end());
    bundle.take_sent();
}

simulator::simulator(const options& settings)
    : client(core::role::client, settings.client, settings.server),
      server(core::role::server, settings.server, settings.client),
      settings_(settings),
      dice_(settings.seed) {
    client.bundle.set_heartbeat(settings.heartbeat);
    server.bundle.set_heartbeat(settings.heartbeat);
}

// --- paths ---

size_t simulator::add_path(const link_settings& forth, const link_settings& back) {
    const size_t number = paths_.size();
    paths_.push_back(std::make_unique<both_ways>(forth, back, dice_.roll()));
    const auto connection = static_cast<uint32_t>(path_of_connection_.size());
    path_of_connection_.push_back(number);
    add_carrier(client, number, connection);
    add_carrier(server, number, connection);
    return number;
}

size_t simulator::open_path(const link_settings& both) {
    const size_t number = paths_.size();
    paths_.push_back(std::make_unique<both_ways>(both, both, dice_.roll()));
    request(number, 0);
    return number;
}

void simulator::remove_path(size_t number) {
    paths_[number]->removed = true;
    remove_carriers(client, number, 0);
    remove_carriers(server, number, 0);
    settle(client);
    settle(server);
}

void simulator::go_dark(size_t number) {
    paths_[number]->forth.set_dark(true);
    paths_[number]->back.set_dark(true);
}

void simulator::come_back(size_t number) {
    paths_[number]->forth.set_dark(false);
    paths_[number]->back.set_dark(false);
}

const core::lane* simulator::lane_of(const host& end, size_t number) const {
    for (const auto& [lane, c] : end.carriers_) {
        if (path_of_connection_[c->connection()] == number) {
            return end.bundle.find_lane(lane);
        }
    }
    return nullptr;
}

void simulator::add_carrier(host& h, size_t number, uint32_t connection) {
    const core::lane_id lane = h.bundle.add_lane(now_, paths_[number]->forth.settings().backup);
    const bool to_server = &h == &client;
    h.carriers_[lane] = std::make_unique<carrier>(
        connection, h.bundle, lane, settings_.carriers,
        [this, number, to_server](packet&& sent) { carry(number, to_server, std::move(sent)); }, dice_.roll());
}

carrier* simulator::find_carrier(const host& h, uint32_t connection) const {
    for (const auto& [lane, c] : h.carriers_) {
        if (c->connection() == connection) {
            return c.get();
        }
    }
    return nullptr;
}

void simulator::remove_carriers(host& h, size_t number, uint32_t except) {
    for (auto at = h.carriers_.begin(); at != h.carriers_.end();) {
        const uint32_t connection = at->second->connection();
        if (path_of_connection_[connection] == number && connection != except) {
            h.bundle.remove_lane(at->first, now_);
            at = h.carriers_.erase(at);
        } else {
            ++at;
        }
    }
}

void simulator::reopen_silent_paths() {
    for (const auto& [lane, c] : client.carriers_) {
        const size_t number = path_of_connection_[c->connection()];
        if (paths_[number]->opening == 0 && client.bundle.find_lane(lane)->wants_fresh_carrier(now_)) {
            request(number, 0);
        }
    }
}

// Asks for a connection until it is there or nobody wants it any more; 0 begins a new one.
void simulator::request(size_t number, uint32_t connection) {
    both_ways& p = *paths_[number];
    if (connection == 0) {
        connection = static_cast<uint32_t>(path_of_connection_.size());
        path_of_connection_.push_back(number);
        p.opening = connection;
    }
    if (p.removed || p.opening != connection) {
        return;
    }
    packet hello;
    hello.connection = connection;
    hello.what = purpose::request;
    hello.datagram.resize(1200);
    carry(number, true, std::move(hello));
    at(now_ + 500ms, [this, number, connection] { request(number, connection); });
}

void simulator::carry(size_t number, bool to_server, packet&& sent) {
    both_ways& p = *paths_[number];
    link& over = to_server ? p.forth : p.back;
    const auto arrival = over.carry(sent, now_);
    if (!arrival || p.removed) {
        return;
    }
    at(*arrival, [this, number, to_server, era = over.era(), carried = std::move(sent)]() mutable {
        both_ways& then = *paths_[number];
        if (!then.removed && (to_server ? then.forth : then.back).lit_since(era)) {
            arrive(number, to_server, std::move(carried));
        }
    });
}

void simulator::arrive(size_t number, bool at_server, packet&& arrived) {
    both_ways& p = *paths_[number];
    host& h = at_server ? server : client;
    carrier* c = find_carrier(h, arrived.connection);
    if (arrived.what == purpose::request) {
        if (c == nullptr) {
            add_carrier(h, number, arrived.connection);
        }
        packet answer;
        answer.connection = arrived.connection;
        answer.what = purpose::accept;
        carry(number, false, std::move(answer));
    } else if (!at_server && arrived.connection == p.opening) {
        p.opening = 0;
        add_carrier(h, number, arrived.connection);
        remove_carriers(h, number, arrived.connection);
        c = find_carrier(h, arrived.connection);
        c->ping(now_);
    } else if (at_server && c != nullptr) {
        // The client uses it: those that it replaces are over, unless this is a last packet of one of them.
        const bool replaced = std::any_of(h.carriers_.begin(), h.carriers_.end(), [&](const auto& entry) {
            const uint32_t other = entry.second->connection();
            return other > arrived.connection && path_of_connection_[other] == number;
        });
        if (!replaced) {
            remove_carriers(h, number, arrived.connection);
        }
    }
    if (c != nullptr && arrived.what == purpose::data) {
        c->received(arrived, now_);
    }
    settle(h);
}

// --- the applications ---

bool simulator::send(host& from, uint64_t stream, uint64_t bytes, bool last) {
    const auto outbox = from.sent.find(stream);
    uint64_t offset = outbox == from.sent.end() ? 0 : outbox->second.bytes;
    uint64_t rest = bytes;
    do {
        const auto piece = static_cast<size_t>(std::min<uint64_t>(rest, 60000));
        rest -= piece;
        auto block = buffer::copy_of({pattern(from.role_, stream, offset), piece});
        if (!from.bundle.queue(stream, std::move(block), last && rest == 0)) {
            return false;
        }
        offset += piece;
    } while (rest != 0);
    from.sent[stream].bytes = offset;
    from.sent[stream].ended = last;
    settle(from);
    return true;
}

void simulator::pause(host& at, uint64_t stream, bool paused) {
    at.bundle.pause(stream, paused, now_);
    settle(at);
}

// --- time ---

void simulator::at(instant when, std::function<void()> action) {
    events_.push_back({std::max(when, now_), order_++, std::move(action)});
    std::push_heap(events_.begin(), events_.end());
}

instant simulator::next_event() const {
    instant next = events_.empty() ? core::never : events_.front().at;
    for (const host* h : {&client, &server}) {
        next = std::min(next, std::max(h->bundle.next_deadline(), h->settled_at_));
        for (const auto& [lane, c] : h->carriers_) {
            next = std::min(next, c->next_deadline());
        }
    }
    return next;
}

bool simulator::run_until(const std::function<bool()>& done, duration limit) {
    const instant end = now_ + limit;
    while (!done()) {
        const instant next = next_event();
        if (next > end) {
            now_ = end;
            return done();
        }
        now_ = std::max(now_, next);
        if (!events_.empty() && events_.front().at <= now_) {
            std::pop_heap(events_.begin(), events_.end());
            const event due = std::move(events_.back());
            events_.pop_back();
            due.run();
        } else {
            settle(client);
            settle(server);
        }
    }
    return true;
}

// What a driver does after any input: deadlines that have come, deliveries, and whatever there is to send.
void simulator::settle(host& h) {
    for (const auto& [lane, c] : h.carriers_) {
        if (c->next_deadline() <= now_) {
            c->on_time(now_);
        }
    }
    if (h.bundle.next_deadline() <= now_) {
        h.bundle.on_time(now_);
    }
    h.deliver_all(now_);
    for (const auto& [lane, c] : h.carriers_) {
        c->pull(now_);
        if (!c->complaint().empty()) {
            h.complaint_ = c->complaint();
        }
    }
    h.settled_at_ = now_;
    if (h.bundle.next_deadline() <= now_) {
        h.complaint_ = "a deadline that stays in the past";
        h.settled_at_ = now_ + 1ms;
    }
    if (&h == &client && settings_.fresh_carriers) {
        reopen_silent_paths();
    }
}

// --- what came of it ---

bool simulator::all_delivered() const {
    const auto arrived = [](const host& from, const host& to) {
        return std::all_of(from.sent.begin(), from.sent.end(), [&](const auto& entry) {
            const auto found = to.received.find(entry.first);
            const host::inbox none;
            const host::inbox& in = found == to.received.end() ? none : found->second;
            return in.bytes == entry.second.bytes && in.ended == entry.second.ended;
        });
    };
    return arrived(client, server) && arrived(server, client);
}

std::string simulator::complaint() const {
    for (const host* h : {&client, &server}) {
        const std::string who = h == &client ? "client: " : "server: ";
        if (!h->bundle.violation().empty()) {
            return who + h->bundle.violation();
        }
        if (!h->complaint_.empty()) {
            return who + h->complaint_;
        }
    }
    return {};
}

}  // namespace tndm::sim

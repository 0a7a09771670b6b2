// The client's paths: what is opened on them, when, and what the kernel tells about them.
#include <algorithm>
#include <utility>

#include "platform/tndm/endpoint/client_lane.h"
#include "platform/tndm/udp/socket.h"

namespace tndm {

namespace {

using std::chrono::milliseconds;

// On a path whose round trip is known (here the shortest) a handshake repeats its first packet after 90, 270 and 630 ms
// and is given up soon, so that the light finds one under way; so often in a row, then ever more rarely. The round trip
// may have grown meanwhile, so patience doubles now and then.
constexpr core::duration shortest_patience = milliseconds(900);
constexpr core::duration longest_patience = std::chrono::seconds(8);
constexpr core::duration shortest_first_rtt = milliseconds(30);
constexpr core::duration longest_first_rtt = milliseconds(333);
constexpr unsigned quick_tries = 16;
constexpr milliseconds quick_pause{50};
// Pauses between other tries double from one to the other.
constexpr milliseconds first_pause{200};
constexpr milliseconds longest_pause{5000};
// Routes may come by the thousand, and for ever: a handshake begins again for their sake ever more rarely, or one that
// needs longer would never end.
constexpr core::duration first_between_restarts = milliseconds(100);
constexpr core::duration longest_between_restarts = std::chrono::seconds(10);
// A server may have an address that nobody answers at, or only over other paths. Twice as long when all were tried: the
// path may be slow.
constexpr core::duration before_next_address = std::chrono::seconds(3);

}  // namespace

milliseconds client::longer_pause(milliseconds pause) {
    return std::clamp(2 * pause, first_pause, longest_pause);
}

void client::add_path(const std::string& text, const pass& p) {
    std::string error;
    auto named = path_spec::parse(text, error);
    if (!named) {
        return;  // the instance has looked at it before
    }
    watch_network();
    links_.watch(named->name);
    path added;
    added.named = std::move(*named);
    added.next_try = p.now;
    added.wanting = true;
    paths_.push_back(std::move(added));
    tell_paths();
}

void client::tell_paths() {
    if (connection_ != nullptr) {
        connection_->refresh_soon();
        touch(*connection_);
    }
}

void client::remove_path(const std::string& name, const pass& p) {
    const auto found =
        std::find_if(paths_.begin(), paths_.end(), [&](const path& each) { return each.named.name == name; });
    if (found == paths_.end()) {
        return;
    }
    links_.forget(name);
    const path gone = std::move(*found);
    paths_.erase(found);
    for (const auto& of : {gone.current, gone.fresh}) {
        if (of != nullptr) {
            abandon(of, close_code::subflow_only, p);
        }
    }
    tell_paths();
}

client::path* client::path_of(const lane& of) {
    const auto found = std::find_if(paths_.begin(), paths_.end(), [&](const path& each) {
        return each.current.get() == &of || each.fresh.get() == &of;
    });
    return found == paths_.end() ? nullptr : &*found;
}

client::path* client::path_named(const std::string& name) {
    const auto found =
        std::find_if(paths_.begin(), paths_.end(), [&](const path& each) { return each.named.name == name; });
    return found == paths_.end() ? nullptr : &*found;
}

// What each path is while no subflow of its own has joined: on its way, not tried yet, or waiting for its next try.
std::vector<path_book::wish> client::wishes() const {
    std::vector<path_book::wish> all;
    for (const path& each : paths_) {
        const bool opening = each.current != nullptr || each.fresh != nullptr;
        const bool untried = each.pause == milliseconds(0) && links_.of(each.named.name) != presence::gone;
        all.push_back({each.named.name, opening ? TNDM_PATH_CONNECTING : untried ? TNDM_PATH_IDLE : TNDM_PATH_DEAD});
    }
    return all;
}

// --- opening ---

core::duration client::patience_for(const path& on) const {
    const core::duration usual =
        std::max(shortest_patience, 4 * on.usual_rtt) * (1 << std::min(on.tries / quick_tries, 4U));
    return std::min(usual, longest_patience);
}

// Of the server's addresses the first that the path has a way to, beginning with the one whose turn it is; without any
// way the first of its family, for there may be one by the time that the first packet goes out.
const endpoint* client::server_for(const path& on) const {
    const auto own = endpoint::parse(on.named.name, 0);
    const endpoint* possible = nullptr;
    for (size_t i = 0; i < servers_.size(); ++i) {
        const endpoint& each = servers_[(on.turn + i) % servers_.size()];
        if (own && own->family() != each.family()) {
            continue;
        }
        if (servers_.size() == 1 || can_reach(on.named.name.c_str(), each)) {
            return &each;
        }
        possible = possible == nullptr ? &each : possible;
    }
    return possible;
}

// The application makes it. -1 when it does not, or makes one that cannot send to IPv6, or has destroyed the instance.
int client::make_socket(const path& on, const endpoint& to) {
    const std::string text = on.named.text + (to.family() == AF_INET6 ? TNDM_PATH_FAMILY_IPV6 : "");
    const int fd = env_.app.create_path != nullptr ? env_.app.create_path(env_.app.instance, text.c_str()) : -1;
    const bool too_small = fd > 0 && to.family() == AF_INET6 && local_endpoint(fd).family() == AF_INET;
    if (fd > 0 && (env_.dead || too_small)) {
        ::close(fd);
        return -1;
    }
    return fd > 0 ? fd : -1;
}

std::shared_ptr<client::lane> client::open(path& on, const pass& p) {
    const endpoint* const chosen = server_for(on);
    if (chosen == nullptr) {
        if (connection_ == nullptr) {
            tell_problem(TNDM_PROBLEM_UNREACHABLE, "the server has no address of the family of " + on.named.name);
        }
        return nullptr;
    }
    const endpoint server = *chosen;
    const int fd = make_socket(on, server);
    if (fd < 0) {
        return nullptr;
    }
    auto made = std::make_shared<lane>(on.named, fd, next_lane_++);
    std::string error;
    auto tls = tls_session::create_client(target_.credentials, target_.alpn, error);
    if (tls == nullptr) {
        tell_problem(TNDM_PROBLEM_CERTIFICATE, error);
        return nullptr;
    }
    subflow_settings settings = env_.quic;
    if (on.shortest_rtt > core::duration::zero()) {
        settings.first_rtt = std::clamp(on.shortest_rtt, shortest_first_rtt, longest_first_rtt);
        made->give_up = p.now + patience_for(on);
    } else if (servers_.size() > 1) {
        const auto rounds = static_cast<unsigned>(on.tries / servers_.size());
        made->give_up = p.now + before_next_address * (1 << std::min(rounds, 3U));
    }
    made->set_flow(subflow::create_client(settings, std::move(tls), local_endpoint(fd), server, p.now));
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
    const core::lane* joined =
        on.current != nullptr && on.current->joined() != nullptr ? on.current->joined()->lane_of(*on.current) : nullptr;
    if (joined != nullptr && !joined->suspect()) {
        on.usual_rtt = joined->rtt();
        on.shortest_rtt = core::duration(on.current->flow().statistics().min_rtt);
    }
    const bool silent = joined != nullptr && joined->wants_fresh_carrier(p.now);
    if (on.fresh != nullptr && on.current != nullptr && !silent) {
        // The old subflow answers again.
        abandon(std::exchange(on.fresh, nullptr), close_code::subflow_only, p);
    }
    on.wanting =
        (on.current == nullptr || (silent && on.fresh == nullptr)) && links_.of(on.named.name) != presence::gone;
    if (!on.wanting || p.now < on.next_try) {
        return;
    }
    on.wanting = false;
    auto made = open(on, p);
    if (made == nullptr) {
        failed(on, false, p);
    } else if (on.current == nullptr) {
        on.current = std::move(made);
    } else {
        on.fresh = std::move(made);
    }
}

void client::failed(path& on, bool unanswered, const pass& p) {
    ++on.tries;
    ++on.turn;
    const bool quick = unanswered && connection_ != nullptr && on.tries < quick_tries;
    on.wanting = true;
    on.pause = quick ? quick_pause : longer_pause(on.pause);
    on.next_try = p.now + on.pause;
    if (connection_ == nullptr) {
        resolver_.start(target_.host, target_.port);  // the server may have moved; the old address serves until then
    }
}

// --- what the kernel tells ---

// On the loop's thread, which is where the paths' sockets are made: a network namespace belongs to a thread.
void client::watch_network() {
    if (std::exchange(network_tried_, true)) {
        return;
    }
    network_ = network_watch::open(env_.loop, [this] {
        const pass p = env_.drive.begin();
        read_network(p);
        env_.drive.finish(p);
    });
}

void client::read_network(const pass& p) {
    if (!network_->read(links_, p.now)) {
        forget_network();
        return;
    }
    for (const auto& change : links_.take_changes()) {
        on_change(change, p);
        if (env_.dead) {
            return;
        }
    }
}

void client::on_own_time(const pass& p) {
    if (network_ != nullptr && !network_->on_time(p.now)) {
        forget_network();
    }
}

// Nothing is known any more, so everything is tried.
void client::forget_network() {
    network_.reset();
    links_ = link_table();
}

void client::on_change(const link_table::change& change, const pass& p) {
    path* const on = path_named(change.name);
    if (on == nullptr) {
        return;
    }
    switch (change.what) {
        case link_table::change::kind::went:
        case link_table::change::kind::moved:
            lose_lanes(*on, change, p);
            break;
        case link_table::change::kind::came:
            on->pause = milliseconds(0);
            on->tries = 0;
            on->between_restarts = core::duration::zero();
            on->next_try = p.now;
            on->wanting = true;
            [[fallthrough]];
        case link_table::change::kind::routed:
            on->restart_at = std::min(on->restart_at, std::max(p.now, on->restarted_at + on->between_restarts));
            break;
    }
}

// A first packet that found no way out would be repeated only after a while.
void client::restart_unheard(path& on, const pass& p) {
    if (p.now < on.restart_at) {
        return;
    }
    on.restart_at = core::never;
    on.restarted_at = p.now;
    for (const auto& of : {on.current, on.fresh}) {
        if (of != nullptr && of->unheard()) {
            abandon(of, close_code::subflow_only, p);
            on.next_try = p.now;
            on.between_restarts = std::clamp(2 * on.between_restarts, first_between_restarts, longest_between_restarts);
        }
    }
    if (on.current == nullptr) {
        on.next_try = p.now;
    }
}

// All that the change concerns.
void client::lose_lanes(path& on, const link_table::change& why, const pass& p) {
    const auto concerned = [&](const lane& of) {
        const endpoint local = local_endpoint(of.fd());
        return why.what == link_table::change::kind::went || link_table::host_of(local) == why.address ||
               (why.last && local.is_wildcard() && (local.family() == AF_INET) == link_table::is_ipv4(why.address));
    };
    for (const auto& of : {on.current, on.fresh}) {
        if (of == nullptr || !concerned(*of)) {
            continue;
        }
        on.next_try = p.now;
        of->close(close_code::subflow_only, p);
        give_back(on, *of);
        if (env_.dead) {
            return;
        }
        abandon(of, close_code::subflow_only, p);
    }
}

// The application gets back the socket of a path that has failed. It may destroy the instance meanwhile.
void client::give_back(path& on, lane& of) {
    if (env_.app.path_broken != nullptr) {
        const int fd = of.release_socket();
        env_.app.path_broken(env_.app.instance, on.named.text.c_str(), fd);
    }
}

}  // namespace tndm

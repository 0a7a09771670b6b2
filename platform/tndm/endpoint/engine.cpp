#include "platform/tndm/endpoint/engine.h"

#include <algorithm>
#include <utility>

namespace tndm {

void engine::clear() {
    touched_carriers_.clear();
    connections_.clear();
    carriers_.clear();
}

connection& engine::establish(std::unique_ptr<connection> made) {
    connection& of = *made;
    connections_.emplace(of.handle(), std::move(made));
    touch(of);
    return of;
}

void engine::touch(carrier& lane) {
    if (!lane.touched) {
        lane.touched = true;
        touched_carriers_.push_back(carriers_.at(&lane));
    }
}

void engine::touch(connection& of) {
    if (!of.touched) {
        of.touched = true;
        touched_connections_.push_back(of.handle());
    }
}

void engine::track(std::shared_ptr<carrier> made) {
    carrier& lane = *made;
    carriers_.emplace(&lane, std::move(made));
    touch(lane);
}

void engine::drop(carrier& lane, const pass& p) {
    if (lane.joined() != nullptr) {
        connection& of = *lane.joined();
        of.remove(lane, p.now);
        touch(of);
    }
    carrier_deadlines_.remove(lane);
    carriers_.erase(&lane);
}

void engine::apply(command& asked, const pass& p) {
    if (asked.connection == nullptr) {
        apply_own(asked, p);
        return;
    }
    const auto found = connections_.find(asked.connection);
    if (found != connections_.end()) {
        found->second->apply(asked, p.now);
        touch(*found->second);
    }
}

void engine::on_time(const pass& p) {
    for (carrier* lane : carrier_deadlines_.due(p.now)) {
        lane->flow().on_time(p.now);
        touch(*lane);
    }
    for (connection* of : connection_deadlines_.due(p.now)) {
        of->on_time(p.now);
        on_time_of(*of, p);
        touch(*of);
    }
    on_own_time(p);
}

bool engine::run(const pass& p) {
    for (const auto& lane : std::exchange(touched_carriers_, {})) {
        lane->touched = false;
        if (carriers_.count(lane.get()) == 0) {
            continue;
        }
        advance(lane, p);
        if (env_.dead) {
            return false;
        }
        if (carriers_.count(lane.get()) == 0) {
            continue;
        }
        if (lane->joined() != nullptr) {
            touch(*lane->joined());
        } else {
            lane->flush(p);
            reschedule(*lane);
            if (lane->flow().ended() || lane->broken()) {
                touch(*lane);
            }
        }
    }
    advance_own(p);
    if (env_.dead) {
        return false;
    }
    serve(p);
    return !env_.dead && (!touched_carriers_.empty() || !touched_connections_.empty());
}

void engine::serve(const pass& p) {
    for (void* handle : std::exchange(touched_connections_, {})) {
        const auto found = connections_.find(handle);
        if (found == connections_.end()) {
            continue;
        }
        connection& of = *found->second;
        of.touched = false;
        of.run_callbacks(env_.app, p.now, env_.dead);
        if (env_.dead) {
            return;
        }
        flush(of, p);
        if (of.finished(p.now)) {
            connection_deadlines_.remove(of);
            retire(of, of.ended().value_or(close_code::bundle_closed), p);
            connections_.erase(handle);
        } else {
            connection_deadlines_.set(of, of.deadline());
        }
    }
}

void engine::flush(connection& of, const pass& p) {
    of.flush(p);
    for (carrier* lane : of.carriers()) {
        reschedule(*lane);
        if (lane->flow().ended() || lane->broken()) {
            touch(*lane);
        }
    }
    if (of.wants_callbacks()) {
        touch(of);
    }
}

core::instant engine::deadline() const {
    return std::min({carrier_deadlines_.next(), connection_deadlines_.next(), own_deadline()});
}

void engine::refresh_paths(void* connection_handle) {
    const auto found = connections_.find(connection_handle);
    if (found != connections_.end()) {
        found->second->refresh_paths();
    }
}

}  // namespace tndm

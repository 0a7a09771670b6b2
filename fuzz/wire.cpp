// A peer whose QUIC is correct and whose datagrams and control messages are not: frames into a bundle, control bytes
// into their decoder. Each may be dropped, processed or end the connection, and nothing else; memory stays in its
// bounds.
#include <optional>

#include "fuzz/input.h"
#include "platform/tndm/core/bundle.h"
#include "platform/tndm/quic/control_message.h"

namespace {

using fuzz::require;
using namespace std::chrono_literals;
using namespace tndm::core;
using bytes_t = std::vector<uint8_t>;

bytes_t to_bytes(std::span<const uint8_t> span) {
    return {span.begin(), span.end()};
}

class victim {
  public:
    explicit victim(fuzz::input& in) : in_(in) {
        own_.streams = in_.between(1, 64);
        own_.stream_window = in_.between(1, 70'000);
        own_.connection_window = in_.between(1, 140'000);
        own_.stream_window_max = own_.stream_window * 4;
        own_.connection_window_max = own_.connection_window * 4;
        own_.paused_allowance = in_.below(65536);
        own_.max_gaps = in_.between(1, 256);
        bundle_.emplace((in_.flag()) ? role::server : role::client, own_, limits{});
        lanes_.push_back(bundle_->add_lane(now_));
    }

    void run() {
        while (in_.more() && bundle_->violation().empty()) {
            step();
            require(!bundle_->violation().empty() ||
                        bundle_->bytes_held() <= own_.connection_window_max + own_.paused_allowance,
                    "what is held is bounded by what was granted");
            if (bundle_->next_deadline() <= now_) bundle_->on_time(now_);
        }
        delivery out;
        if (!bundle_->violation().empty()) {
            require(!bundle_->take_delivery(out, now_), "nothing is delivered once the rules were broken");
        }
        for (const lane_id lane : lanes_) {
            bundle_->remove_lane(lane, now_);
        }
    }

  private:
    void step() {
        switch (in_.below(12)) {
            case 0:
                give(to_bytes(in_.bytes()));
                break;
            case 1:
            case 2:
            case 3:
                give_chunk();
                break;
            case 4:
                give_grant();
                break;
            case 5: {
                delivery out;
                while (bundle_->take_delivery(out, now_)) {
                    require(!out.bytes.empty() || out.last, "a delivery brings something");
                }
                bundle_->take_closed();
                break;
            }
            case 6:
                bundle_->pause(in_.below(64), in_.flag(), now_);
                if (in_.flag()) {
                    bundle_->stop(in_.below(64));
                }
                bundle_->take_stopped();
                break;
            case 7:
                bundle_->queue(in_.below(64), buffer::copy_of(to_bytes(in_.bytes())), in_.flag());
                break;
            case 8:
                pull();
                break;
            case 9:
                answer();
                break;
            case 10:
                now_ += std::chrono::milliseconds(in_.below(65536));
                break;
            default:
                change_lanes();
        }
        now_ += 1us;
    }

    void give(const bytes_t& datagram) { bundle_->received(datagram, now_); }

    void give_framed(const wire::header& head, std::span<const uint8_t> body) {
        bytes_t datagram = to_bytes(head.bytes());
        datagram.insert(datagram.end(), body.begin(), body.end());
        give(datagram);
    }

    uint64_t number() {
        switch (in_.below(4)) {
            case 0:
                return in_.byte();
            case 1:
                return in_.below(65536);
            case 2:
                return in_.below(1 << 24);
            default:
                return wire::varint_max - in_.byte();
        }
    }

    void give_chunk() {
        wire::chunk chunk{in_.below(64), number(), in_.below(4) == 0, std::nullopt, {}};
        if (in_.below(4) == 0) chunk.first = wire::preface{in_.below(64), number()};
        const auto body = in_.bytes();
        give_framed(wire::header::of(chunk), body);
    }

    void give_grant() {
        switch (in_.below(3)) {
            case 0:
                return give_framed(wire::header::of(wire::window{number()}), {});
            case 1:
                return give_framed(wire::header::of(wire::stream_window{in_.below(64), number()}), {});
            default:
                return give_framed(wire::header::of(wire::streams{in_.below(2), number()}), {});
        }
    }

    lane_id lane() { return lanes_[in_.below(static_cast<uint32_t>(lanes_.size()))]; }

    void pull() {
        const lane_id from = lane();
        if (bundle_->find_lane(from) == nullptr) return;
        const size_t room = in_.between(40, 1400);
        for (int i = 0; i < 16; ++i) {
            const auto out = bundle_->next(from, room, now_);
            if (!out) break;
            require(out->size() <= room, "a datagram fits the room");
            under_way_.emplace_back(from, bundle_->next_id(from));
            bundle_->sent(from, *out, now_);
        }
        bundle_->take_sent();
    }

    // What the QUIC connection says of a datagram: once acknowledged, once lost, or lost and then acknowledged.
    void answer() {
        if (under_way_.empty()) return;
        const size_t which = in_.below(static_cast<uint32_t>(under_way_.size()));
        const auto [of, id] = under_way_[which];
        if (in_.flag()) {
            bundle_->lost(of, id, now_);
            if (in_.flag()) return;
        } else {
            bundle_->acknowledged(of, id, now_);
        }
        under_way_.erase(under_way_.begin() + static_cast<ptrdiff_t>(which));
    }

    void change_lanes() {
        const lane_id of = lane();
        switch (in_.below(4)) {
            case 0:
                if (lanes_.size() < 8) lanes_.push_back(bundle_->add_lane(now_, in_.flag()));
                break;
            case 1:
                bundle_->remove_lane(of, now_);
                break;
            case 2:
                bundle_->set_rtt(of, std::chrono::milliseconds(in_.between(1, 2000)),
                                 std::chrono::milliseconds(in_.byte()));
                break;
            default:
                bundle_->set_rate(of, number());
        }
    }

    fuzz::input& in_;
    limits own_;
    std::optional<bundle> bundle_;
    std::vector<lane_id> lanes_;
    std::vector<std::pair<lane_id, uint64_t>> under_way_;
    instant now_ = instant{} + 1000s;
};

void decode_messages(fuzz::input& in) {
    tndm::control::decoder decoder;
    while (in.more() && decoder.push(in.bytes())) {
        while (const auto message = decoder.next()) {
            const bytes_t once = tndm::control::encode(*message);
            tndm::control::decoder again;
            require(again.push(once), "what was encoded can be decoded");
            const auto same = again.next();
            require(same && tndm::control::encode(*same) == once, "a message has one form");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    if (in.below(4) == 0) {
        decode_messages(in);
    } else {
        victim(in).run();
    }
    return 0;
}

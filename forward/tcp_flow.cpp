#include "forward/tcp_flow.h"

#include <algorithm>
#include <utility>

namespace tandem {

flow_marks_t flow_marks(size_t instances) {
    constexpr uint64_t kib = 1024;
    constexpr uint64_t shared = 32 * kib * kib;
    const uint64_t high = std::clamp(shared / std::max<uint64_t>(instances, 1), 128 * kib, kib * kib);
    return {high, high / 2};
}

void tcp_flow_t::push(packet_queue_t& queue, std::shared_ptr<packet_t> packet) {
    queued += packet->size() + packet_overhead;
    queue.push_back(std::move(packet));
}

int tcp_flow_t::gather(const packet_queue_t& queue, iovec* parts, int most) const {
    int count = 0;
    size_t skip = front_written;
    for (const auto& packet : queue) {
        if (count == most) break;
        parts[count++] = {packet->data() + skip, packet->size() - skip};
        skip = 0;
    }
    return count;
}

void tcp_flow_t::consume(packet_queue_t& queue, size_t bytes) {
    front_written += bytes;
    while (!queue.empty() && front_written >= queue.front()->size()) {
        const size_t size = queue.front()->size();
        front_written -= size;
        queued -= size + packet_overhead;
        queue.pop_front();
    }
}

}  // namespace tandem

// UDP with lossless delivery: many datagrams a pass, queues that drop the oldest, and nothing that a remote party can
// do closes a forward.
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "forward/advanced_connection_context.h"
#include "forward/datagram_batch.h"
#include "forward/frame_batch.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"
#include "link/tndm.h"

namespace tandem {

namespace {

// One socket's share of a wakeup.
constexpr int most_batches = 4;
// What may wait unsent in the transport, where it cannot be dropped any more; newer datagrams wait here.
constexpr flow_marks_t stream_marks{128 * 1024, 64 * 1024};
const flow_marks_t& marks() {
    return tndm_get_stream_backlog ? stream_marks : connection_marks;
}

// When so much of the connection is unsent (many sources, a path in darkness), a flow that has more than a little of it
// loses what it sends: sources are easily forged.
constexpr uint64_t most_unsent = 32 << 20;
constexpr uint64_t a_little = 4096;

// Sent at once when so many have come in, else at the end of what the transport delivers in one call.
constexpr size_t most_held = 64;

// The socket itself is broken; other errors tell of one datagram, or pass.
bool is_fatal(int error) {
    return error == EBADF || error == ENOTSOCK || error == EFAULT || error == EINVAL;
}

// Whether an answer from `from` can be one to what was sent to `target`. A target that stands for many, or for this
// machine, is answered from other addresses.
bool answers(const sockaddr_storage& from, const sockaddr_storage& target) {
    if (from.ss_family != target.ss_family) return false;
    if (target.ss_family == AF_INET) {
        const auto& a = reinterpret_cast<const sockaddr_in&>(from);
        const auto& b = reinterpret_cast<const sockaddr_in&>(target);
        const uint32_t address = ntohl(b.sin_addr.s_addr);
        if (address == INADDR_ANY || address == INADDR_BROADCAST || IN_MULTICAST(address)) return true;
        return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
    }
    const auto& a = reinterpret_cast<const sockaddr_in6&>(from);
    const auto& b = reinterpret_cast<const sockaddr_in6&>(target);
    if (IN6_IS_ADDR_UNSPECIFIED(&b.sin6_addr) || IN6_IS_ADDR_MULTICAST(&b.sin6_addr)) return true;
    return a.sin6_port == b.sin6_port && IN6_ARE_ADDR_EQUAL(&a.sin6_addr, &b.sin6_addr);
}

}  // namespace

// What the pumps keep from call to call. Loop's thread.
struct advanced_connection_context_t::scratch_t {
    datagram_batch_t datagrams;
    frame_batch_t frames;
};

advanced_connection_context_t::scratch_t& advanced_connection_context_t::scratch() {
    if (!scratch_) scratch_ = std::make_shared<scratch_t>();
    return *scratch_;
}

frame_batch_t& advanced_connection_context_t::frames() {
    return scratch().frames;
}

void advanced_connection_context_t::read_udp_listen_lossless(const record_t& forward, int fd) {
    datagram_batch_t& batch = scratch().datagrams;
    bool update_owed = false;
    for (int batches = 0; batches < most_batches; ++batches) {
        const int count = batch.receive(fd);
        if (count < 0 && is_fatal(errno)) {
            log_message("process_udp_listen_io_read", __LINE__,
                        "UDP listen I/O - ERROR! Close listener! fd=(%d) failed with error: %s\n", fd,
                        std::strerror(errno));
            return close_from_pump(forward);
        }
        // Another error is one datagram's, and gone with it.
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) break;
        record_t peer;
        for (int i = 0; i < count; ++i) {
            const bool same = i > 0 && std::memcmp(&batch.from(i), &batch.from(i - 1), sizeof(sockaddr_storage)) == 0;
            if (!same || frames().full()) {
                if (peer) update_owed |= !send_frames(peer);
                if (!same) peer = find_udp_peer(forward, fd, batch.from(i), update_owed);
            }
            if (peer) frames().add(batch.data(i), batch.size(i));
        }
        if (peer) update_owed |= !send_frames(peer);
        if (count >= 0 && count < datagram_batch_t::most) break;
    }
    if (update_owed) update_forwarding();
}

void advanced_connection_context_t::read_udp_lossless(const record_t& inst, int fd) {
    datagram_batch_t& batch = scratch().datagrams;
    for (int batches = 0; batches < most_batches; ++batches) {
        const int count = batch.receive(fd);
        if (count < 0 && is_fatal(errno)) {
            log_message("process_udp_connection_io_read", __LINE__,
                        "UDP Peer I/O - ERROR! Close peer instance! fd=(%d) failed with error: %s\n", fd,
                        std::strerror(errno));
            return close_from_pump(inst);
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
        for (int i = 0; i < count; ++i) {
            // Anybody may send to this port.
            if (!answers(batch.from(i), inst->peer_address)) continue;
            if (frames().full() && !send_frames(inst)) return update_forwarding();
            frames().add(batch.data(i), batch.size(i));
        }
        if (!send_frames(inst)) return update_forwarding();
        if (count >= 0 && count < datagram_batch_t::most) return;
    }
}

// Sends what `frames` holds on an instance's stream, or lets it wait there while the stream is full. False when the
// stream failed: a pass is owed then.
bool advanced_connection_context_t::send_frames(const record_t& inst) {
    frame_batch_t& batch = frames();
    if (batch.empty()) return true;
    {
        std::lock_guard guard(inst->lock);
        inst->last_active_us = steady_time_us();
    }
    if (inst->state != STATE_OPEN && inst->state != STATE_INITIATED) {
        batch.clear();
        return true;
    }
    const uint64_t unsent = unsent_bytes(inst->stream_id);
    if (unsent >= a_little && unsent_of_connection() >= most_unsent) {
        batch.clear();
        return true;
    }
    if (!inst->outgoing && unsent < marks().high) return transmit_frames(inst);
    if (!inst->outgoing) inst->outgoing = std::make_unique<outgoing_t>();
    batch.for_each([&](const uint8_t* body, size_t size) {
        push_datagram(inst->outgoing->packets, inst->outgoing->bytes,
                      std::make_shared<packet_t>(const_cast<uint8_t*>(body), static_cast<uint32_t>(size), false));
    });
    batch.clear();
    await_writable(inst, marks());
    return true;
}

bool advanced_connection_context_t::transmit_frames(const record_t& inst) {
    if (frames().send(transport_.load(), inst->stream_id)) return true;
    log_message("send_frames", __LINE__,
                "UDP forward I/O read - ERROR! Close instance (fd=%d) since failed to send over TNDM stream "
                "(stream-id=%llu).\n",
                inst->fd, static_cast<unsigned long long>(inst->stream_id));
    request_close(*inst);
    return false;
}

// The stream has room again: what waits goes out, as far as the room reaches. Until all has, what is newly read joins
// the end of the queue.
void advanced_connection_context_t::send_waiting_datagrams(const record_t& inst) {
    inst->flow.read_paused = false;
    if (!inst->outgoing) return;
    outgoing_t& waiting = *inst->outgoing;
    while (!waiting.packets.empty()) {
        const uint64_t unsent = unsent_bytes(inst->stream_id);
        if (unsent >= marks().high) return await_writable(inst, marks());
        uint64_t room = marks().high - unsent;
        while (room > 0 && !waiting.packets.empty() && !frames().full()) {
            packet_t& datagram = *waiting.packets.front();
            frames().add(datagram.data(), datagram.size());
            room -= std::min<uint64_t>(room, datagram.size() + 1);
            pop_datagram(waiting.packets, waiting.bytes);
        }
        if (!transmit_frames(inst)) return update_forwarding();
    }
    inst->outgoing.reset();
}

// Link's thread. Datagrams of one delivery go out together.
void advanced_connection_context_t::deliver_udp_lossless(const record_t& inst, const std::shared_ptr<packet_t>& packet,
                                                         int fin) {
    if (unsent_ && unsent_ != inst) send_delivered();
    bool owed = false;
    {
        std::lock_guard guard(inst->lock);
        const int32_t state = inst->state;
        if (packet && state != STATE_CLOSED && state != STATE_TO_CLOSE) {
            push_datagram(inst->pending_packets, inst->flow.queued, packet);
            owed = inst->fd >= 0;
        }
        owed = owed && (inst->pending_packets.size() >= most_held || fin != 0);
    }
    unsent_ = inst;
    if (owed) send_delivered();
    if (fin != 0 && delivery_remaining_ == 0) close_at_stream_end(inst);
}

// Link's thread, at the end of a delivery.
void advanced_connection_context_t::send_delivered() {
    const record_t inst = std::move(unsent_);
    unsent_ = nullptr;
    if (!inst) return;
    int error = 0, fd = -1;
    {
        // Held while datagrams go out, so that the loop's thread cannot close the descriptor under them.
        std::lock_guard guard(inst->lock);
        const int32_t state = inst->state;
        if (state == STATE_CLOSED || state == STATE_TO_CLOSE || inst->fd < 0) return;
        inst->last_active_us = steady_time_us();
        fd = inst->fd;
        error = flush_datagrams(*inst);
    }
    if (!is_fatal(error)) return;
    log_message("on_received_stream_packet", __LINE__,
                "UDP forward I/O write - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                std::strerror(error));
    request_close(*inst);
    wake(update_async);
}

}  // namespace tandem

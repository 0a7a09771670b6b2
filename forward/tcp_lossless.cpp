// TCP with lossless delivery: bounded queues, each direction ends by itself.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "forward/advanced_connection_context.h"
#include "forward/message_log.h"
#include "link/tndm.h"

namespace tandem {

namespace {

constexpr uint32_t read_size = 65536;
// One instance's share of a wakeup, so that none starves the others: 1 MiB in, and about as much out.
constexpr int most_reads = 16;
constexpr int most_writes = 4;
constexpr int parts_a_write = 16;

// The further functions may be absent; they come together.
bool knows_stream_backlog() {
    return tndm_get_stream_backlog != nullptr;
}

}  // namespace

void advanced_connection_context_t::read_lossless(const record_t& inst, int fd, const flow_marks_t& marks) {
    for (int reads = 0; reads < most_reads; ++reads) {
        packet_t packet(read_size);
        if (!packet.data()) return;
        const ssize_t received = recv(fd, packet.data(), read_size, MSG_DONTWAIT);
        if (received < 0) {
            if (errno == EAGAIN || errno == EINTR) return;
            log_message("process_tcp_connection_io_read", __LINE__,
                        "TCP forward I/O read - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                        std::strerror(errno));
            return close_from_pump(inst);
        }
        if (received == 0) return end_reading(inst);
        packet.set_size(static_cast<uint32_t>(received));
        packet.shrink_to_size();
        if (packet.add_to_tndm(transport_.load(), inst->stream_id, 0) < 0) {
            log_message("process_tcp_connection_io_read", __LINE__,
                        "TCP forward I/O read - ERROR! Close instance (fd=%d) since failed to send over TNDM stream "
                        "(stream-id=%llu).\n",
                        fd, static_cast<unsigned long long>(inst->stream_id));
            return close_from_pump(inst);
        }
        if (unsent_bytes(inst->stream_id) >= (knows_stream_backlog() ? marks : connection_marks).high) {
            return pause_reading(inst, marks);
        }
        // A short read has emptied the socket; what comes next wakes the loop.
        if (received < static_cast<ssize_t>(read_size)) return;
    }
}

// End of file: this side's direction of the stream ends, the other one goes on.
void advanced_connection_context_t::end_reading(const record_t& inst) {
    stop_rx(inst);
    inst->flow.read_ended = true;
    packet_t end(0);
    end.fin = 1;
    const bool sent = end.add_to_tndm(transport_.load(), inst->stream_id, 0) >= 0;
    if (!sent || inst->flow.write_ended) close_from_pump(inst);
}

void advanced_connection_context_t::pause_reading(const record_t& inst, const flow_marks_t& marks) {
    stop_rx(inst);
    await_writable(inst, marks);
}

void advanced_connection_context_t::await_writable(const record_t& inst, const flow_marks_t& marks) {
    if (std::exchange(inst->flow.read_paused, true)) return;
    // When this fails, the timer resumes.
    if (knows_stream_backlog()) tndm_request_writable(transport_.load(), inst->stream_id, marks.low);
}

void advanced_connection_context_t::resume_reading(const record_t& inst) {
    if (!inst->flow.read_paused || inst->flow.read_ended) return;
    if (inst->type == TYPE_UDP && inst->stream_id != no_stream) return send_waiting_datagrams(inst);
    inst->flow.read_paused = false;
    if (inst->state == STATE_OPEN || inst->state == STATE_INITIATED) start_rx(inst);
}

uint64_t advanced_connection_context_t::unsent_bytes(uint64_t stream_id) {
    if (knows_stream_backlog()) return tndm_get_stream_backlog(transport_.load(), stream_id);
    return unsent_of_connection();
}

uint64_t advanced_connection_context_t::unsent_of_connection() {
    void* const to = transport_.load();
    const uint64_t sent = tndm_get_data_sent(to);
    const uint64_t queued = tndm_get_bytes_queued(to);
    return queued > sent ? queued - sent : 0;
}

// Link's thread.
void advanced_connection_context_t::stream_became_writable(uint64_t stream_id) {
    {
        std::lock_guard guard(tx_queue_lock);
        writable_streams_.push_back(stream_id);
    }
    wake(ioevt_async);
}

void advanced_connection_context_t::resume_writable_streams() {
    std::deque<uint64_t> streams;
    {
        std::lock_guard guard(tx_queue_lock);
        streams.swap(writable_streams_);
    }
    for (const uint64_t stream_id : streams) {
        flow_marks_t marks;
        if (const record_t inst = find_stream(stream_id, marks)) resume_reading(inst);
    }
}

// On the timer: listeners that lacked descriptors, and streams whose notice did not come or cannot come.
void advanced_connection_context_t::resume_paused() {
    std::vector<record_t> paused;
    flow_marks_t marks = connection_marks;
    {
        std::lock_guard guard(table_lock);
        if (knows_stream_backlog()) marks = current_marks();
        for (const auto& [fd, forward] : forwards) {
            if (forward->flow.read_paused) paused.push_back(forward);
        }
        for (const auto* table : {&local_streams, &remote_streams}) {
            for (const auto& [stream_id, inst] : *table) {
                if (inst->flow.read_paused) paused.push_back(inst);
            }
        }
    }
    for (const record_t& record : paused) {
        const bool is_listener = record->stream_id == no_stream;
        if (is_listener || unsent_bytes(record->stream_id) <= marks.low) resume_reading(record);
    }
}

// Something waits for the socket, or the stream has ended: write without waiting to be told that there is room.
void advanced_connection_context_t::start_writing(const record_t& inst) {
    flow_marks_t marks;
    {
        std::lock_guard guard(inst->lock);
        inst->flow.start_queued = false;
    }
    if (inst->state != STATE_OPEN && inst->state != STATE_INITIATED) return;
    // Until a socket is connected it must be left alone (a shutdown would abandon the attempt).
    if (!inst->flow.connected) return start_tx(inst);
    {
        std::lock_guard guard(table_lock);
        marks = current_marks();
    }
    write_lossless(inst, marks);
}

void advanced_connection_context_t::write_lossless(const record_t& inst, const flow_marks_t& marks) {
    for (int writes = 0; writes < most_writes; ++writes) {
        if (!write_some(inst, marks)) break;
    }
    if (inst->fd >= 0) finish_writing(inst);
}

// One write. False when the queue is empty, the socket full, or the instance closed by a failure.
bool advanced_connection_context_t::write_some(const record_t& inst, const flow_marks_t& marks) {
    iovec parts[parts_a_write];
    msghdr message{};
    message.msg_iov = parts;
    {
        // Only this thread takes packets off the queue, so they outlast the lock.
        std::lock_guard guard(inst->lock);
        const int count = inst->flow.gather(inst->pending_packets, parts, parts_a_write);
        if (count == 0) return false;
        message.msg_iovlen = static_cast<size_t>(count);
    }
    const ssize_t sent = sendmsg(inst->fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        if (errno == EINTR) return true;
        if (errno == EAGAIN) return false;
        log_message("process_tcp_connection_io_write", __LINE__,
                    "TCP forward I/O write - ERROR! Close instance. fd=(%d) failed with error: %s\n", inst->fd,
                    std::strerror(errno));
        close_from_pump(inst);
        return false;
    }
    std::lock_guard guard(inst->lock);
    inst->flow.consume(inst->pending_packets, static_cast<size_t>(sent));
    if (inst->flow.receive_paused && inst->flow.queued <= marks.low) {
        inst->flow.receive_paused = false;
        tndm_pause_stream(transport_.load(), inst->stream_id, 0);
    }
    return true;
}

// The watcher is on while packets wait; behind the last packet of the stream the socket is shut down.
void advanced_connection_context_t::finish_writing(const record_t& inst) {
    {
        std::lock_guard guard(inst->lock);
        if (!inst->pending_packets.empty()) {
            if (!inst->tx_active && inst->write_io) {
                loop->ops->io_start(loop, inst->write_io);
                inst->tx_active = true;
            }
            return;
        }
        stop_tx_locked(*inst);
        if (!inst->flow.stream_ended || inst->flow.write_ended) return;
        inst->flow.write_ended = shutdown(inst->fd, SHUT_WR) == 0;
    }
    if (!inst->flow.write_ended || inst->flow.read_ended) close_from_pump(inst);
}

}  // namespace tandem

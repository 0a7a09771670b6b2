#include "platform/tndm/quic/subflow.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/tndm/quic/secret.h"

namespace tndm {

namespace {

// A handshake that has not succeeded by then will not: the path is tried again.
constexpr ngtcp2_duration handshake_timeout = 8 * NGTCP2_SECONDS;
constexpr ngtcp2_duration idle_timeout = 30 * NGTCP2_SECONDS;
// The peer opens none of them: the credit only exists to be raised, which makes a packet worth probing for (see
// raise_anchor). From here on its number always takes four bytes.
constexpr uint64_t first_uni_streams = 1 << 14;
// Bytes of the control stream that may be under way.
constexpr uint64_t control_window = 4096;
// Larger than what any path carries, so the probes of path MTU discovery (up to 1444 bytes) all fit.
constexpr size_t largest_payload = 1452;

ngtcp2_path path_of(const endpoint& local, const endpoint& remote) {
    // The library does not write through these pointers.
    return {{const_cast<sockaddr*>(local.address()), local.length},
            {const_cast<sockaddr*>(remote.address()), remote.length},
            nullptr};
}

void trace_line(void*, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
}

ngtcp2_cid random_id(size_t length) {
    ngtcp2_cid id;
    id.datalen = length;
    random_nonce({id.data, length});
    return id;
}

}  // namespace

subflow::subflow(const subflow_settings& settings, std::unique_ptr<tls_session> tls, const endpoint& local,
                 const endpoint& remote)
    : settings_(settings), tls_(std::move(tls)), local_(local), remote_(remote) {
    ngtcp2_path_storage_zero(&out_path_);
}

subflow::~subflow() {
    ngtcp2_conn_del(connection_);
}

ngtcp2_settings subflow::library_settings(core::instant now) const {
    ngtcp2_settings made;
    ngtcp2_settings_default(&made);
    made.cc_algo = settings_.congestion;
    made.initial_rtt = static_cast<ngtcp2_duration>(settings_.first_rtt.count());
    made.initial_ts = static_cast<ngtcp2_tstamp>(now.time_since_epoch().count());
    made.max_tx_udp_payload_size = largest_payload;
    made.handshake_timeout = handshake_timeout;
    made.log_printf = settings_.trace ? trace_line : nullptr;
    return made;
}

ngtcp2_transport_params subflow::parameters() const {
    ngtcp2_transport_params made;
    ngtcp2_transport_params_default(&made);
    made.initial_max_stream_data_bidi_local = control_window;
    made.initial_max_stream_data_bidi_remote = control_window;
    made.initial_max_data = control_window;
    made.initial_max_streams_bidi = 1;
    made.initial_max_streams_uni = first_uni_streams;
    made.max_idle_timeout = idle_timeout;
    made.max_datagram_frame_size = 65535;
    made.active_connection_id_limit = 4;
    return made;
}

void subflow::adopt(ngtcp2_conn* connection) {
    connection_ = connection;
    tls_->attach(connection);
}

std::unique_ptr<subflow> subflow::create_client(const subflow_settings& settings, std::unique_ptr<tls_session> tls,
                                                const endpoint& local, const endpoint& remote, core::instant now) {
    std::unique_ptr<subflow> made(new subflow(settings, std::move(tls), local, remote));
    made->now_ = now;
    const ngtcp2_cid first_id = random_id(server_id_length);
    const ngtcp2_cid own_id = random_id(client_id_length);
    const ngtcp2_callbacks calls = callbacks(false);
    const ngtcp2_settings library = made->library_settings(now);
    const ngtcp2_transport_params params = made->parameters();
    const ngtcp2_path path = path_of(local, remote);
    ngtcp2_conn* connection = nullptr;
    if (ngtcp2_conn_client_new(&connection, &first_id, &own_id, &path, NGTCP2_PROTO_VER_V1, &calls, &library, &params,
                               nullptr, made.get()) != 0) {
        return nullptr;
    }
    made->adopt(connection);
    made->update_deadline();
    return made;
}

std::unique_ptr<subflow> subflow::create_server(const subflow_settings& settings, std::unique_ptr<tls_session> tls,
                                                const endpoint& local, const endpoint& remote,
                                                const first_packet& first, id_registrar& ids, core::instant now) {
    std::unique_ptr<subflow> made(new subflow(settings, std::move(tls), local, remote));
    made->now_ = now;
    made->ids_ = &ids;
    const ngtcp2_cid own_id = random_id(server_id_length);
    const ngtcp2_callbacks calls = callbacks(true);
    ngtcp2_settings library = made->library_settings(now);
    ngtcp2_transport_params params = made->parameters();
    params.original_dcid = first.first_id;
    if (first.retry_id) {
        params.retry_scid_present = 1;
        params.retry_scid = *first.retry_id;
        // Only read while the connection is made.
        library.token = {const_cast<uint8_t*>(first.token.data()), first.token.size()};
    }
    params.stateless_reset_token_present = 1;
    ids.reset_token(own_id, params.stateless_reset_token);
    const ngtcp2_path path = path_of(local, remote);
    ngtcp2_conn* connection = nullptr;
    if (ngtcp2_conn_server_new(&connection, &first.client_id, &own_id, &path, first.version, &calls, &library, &params,
                               nullptr, made.get()) != 0) {
        made->ids_ = nullptr;
        return nullptr;
    }
    made->adopt(connection);
    ids.add_id(own_id);
    made->update_deadline();
    return made;
}

// --- input ---

void subflow::read(std::span<const uint8_t> datagram, const endpoint& local, const endpoint& remote, uint8_t ecn,
                   core::instant now) {
    if (ended_) {
        return;
    }
    now_ = now;
    ++counters_.packets_received;
    counters_.bytes_received += datagram.size();
    stream_blocked_ = false;
    const ngtcp2_path path = path_of(local, remote);
    const ngtcp2_pkt_info info{ecn};
    const int result = ngtcp2_conn_read_pkt(connection_, &path, &info, datagram.data(), datagram.size(),
                                            static_cast<ngtcp2_tstamp>(now.time_since_epoch().count()));
    if (result != 0) {
        fail(result);
    }
}

void subflow::on_time(core::instant now) {
    if (ended_ || now < deadline_) {
        return;
    }
    now_ = now;
    const int result =
        ngtcp2_conn_handle_expiry(connection_, static_cast<ngtcp2_tstamp>(now.time_since_epoch().count()));
    if (result != 0) {
        fail(result);
        return;
    }
    const size_t probes = statistics().pto_count;
    if (probes > pto_count_) {
        // The library writes two probe packets. One without a new frame would make it forget to report the datagrams of
        // the packet that it copies, so both get an anchor.
        probes_due_ = 2;
    }
    pto_count_ = probes;
}

void subflow::send(const control::message& value) {
    stream_out_.push_back(control::encode(value));
}

void subflow::attach(core::bundle& bundle, core::lane_id lane, bool may_send) {
    bundle_ = &bundle;
    lane_ = lane;
    may_send_ = may_send;
    bundle_->set_awaited(lane_, !may_send);
}

void subflow::allow_sending() {
    if (!std::exchange(may_send_, true) && bundle_ != nullptr) {
        bundle_->set_awaited(lane_, false);
    }
}

std::optional<control::message> subflow::next_message() {
    auto found = stream_in_.next();
    if (stream_in_.failed() && !ended_) {
        fatal_ = NGTCP2_ERR_PROTO;
        end({.code = close_code::violation, .reason = "the peer's handshake message makes no sense"});
        return std::nullopt;
    }
    if (found && std::holds_alternative<control::ready>(*found)) {
        allow_sending();
        return next_message();
    }
    return found;
}

// --- the end ---

void subflow::end(ending why) {
    if (!ended_) {
        ended_ = std::move(why);
        deadline_ = core::never;
    }
}

void subflow::fail(int library_error) {
    switch (library_error) {
        case NGTCP2_ERR_DRAINING: {
            if (stateless_reset_) {
                end({.reset = true, .by_peer = true, .reason = "the peer does not know this connection"});
                return;
            }
            ngtcp2_connection_close_error told;
            ngtcp2_conn_get_connection_close_error(connection_, &told);
            ending why{.by_peer = true};
            if (told.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_APPLICATION) {
                why.code = static_cast<close_code>(told.error_code);
                why.reason = "closed by the peer";
            } else if (told.error_code == (NGTCP2_CRYPTO_ERROR | 120)) {
                why.reason = "the peer does not speak this protocol name (ALPN)";
            } else {
                why.reason = "the peer ended the connection with error " + std::to_string(told.error_code);
            }
            end(std::move(why));
            return;
        }
        case NGTCP2_ERR_IDLE_CLOSE:
            end({.reason = "nothing was heard for too long"});
            return;
        case NGTCP2_ERR_HANDSHAKE_TIMEOUT:
            end({.reason = "no answer"});
            return;
        case NGTCP2_ERR_RETRY:
        case NGTCP2_ERR_DROP_CONN:
            end({.reason = "not a connection"});
            return;
        case NGTCP2_ERR_CALLBACK_FAILURE:
            fatal_ = library_error;
            end({.code = close_code::violation, .reason = "the peer broke the rules"});
            return;
        default:
            fatal_ = library_error;
            end({.reason = tls_->certificate_error().empty()
                               ? std::string("broken by ") + ngtcp2_strerror(library_error)
                               : tls_->certificate_error()});
    }
}

void subflow::close(close_code code, core::instant now, std::span<uint8_t> buffer, const batch_sink& sink) {
    const bool tell_error = ended_ && fatal_ != 0;
    if (ended_ && !tell_error) {
        return;
    }
    ngtcp2_connection_close_error why;
    if (fatal_ == NGTCP2_ERR_CRYPTO) {
        ngtcp2_connection_close_error_set_transport_error_tls_alert(&why, ngtcp2_conn_get_tls_alert(connection_),
                                                                    nullptr, 0);
    } else if (fatal_ != 0) {
        ngtcp2_connection_close_error_set_transport_error_liberr(&why, fatal_, nullptr, 0);
    } else {
        ngtcp2_connection_close_error_set_application_error(&why, static_cast<uint64_t>(code), nullptr, 0);
    }
    ngtcp2_pkt_info info{};
    const ngtcp2_ssize size = ngtcp2_conn_write_connection_close(
        connection_, &out_path_.path, &info, buffer.data(), std::min(buffer.size(), largest_payload), &why,
        static_cast<ngtcp2_tstamp>(now.time_since_epoch().count()));
    if (size > 0) {
        const auto data = buffer.first(static_cast<size_t>(size));
        sink({data, data.size(), local_, remote_, static_cast<int>(info.ecn)});
    }
    fatal_ = 0;
    end({.reason = "closed"});
}

void subflow::update_deadline() {
    if (!ended_) {
        const ngtcp2_tstamp expiry = ngtcp2_conn_get_expiry(connection_);
        deadline_ = expiry >= static_cast<ngtcp2_tstamp>(core::never.time_since_epoch().count())
                        ? core::never
                        : core::instant(core::duration(static_cast<core::duration::rep>(expiry)));
    }
}

ngtcp2_conn_stat subflow::statistics() const {
    ngtcp2_conn_stat found;
    ngtcp2_conn_get_conn_stat(connection_, &found);
    return found;
}

}  // namespace tndm

/* The multipath transport as this system uses it: records handed in, callbacks handed back, functions.
 *
 * Plain C, no dependency but tloop.h. A device with a transport of its own provides the same functions; the bundled one
 * (platform/tndm) bonds several QUIC connections, one a network path.
 *
 * Threads: every function may be called from any thread at any time, also from inside a callback, also with a handle
 * whose instance or connection is gone (the result is then a failure, never a crash). All callbacks run on the loop's
 * thread; the transport holds no lock of its own while one runs. Results: 0 or a positive number is success, negative
 * is failure, unless a function says otherwise.
 */
#ifndef TANDEM_LINK_TNDM_H
#define TANDEM_LINK_TNDM_H

#include "link/tloop.h"

#ifdef __cplusplus
extern "C" {
#endif

/* `id` holds `length` bytes. */
typedef struct {
    uint8_t id[20];
    uint8_t length;
} st_tndm_connection_id_t;

typedef void (*tndm_connection_cb)(void* instance, const st_tndm_connection_id_t* id, void* connection);
/* Stream bytes in order. `data` lives until the callback returns; `fin` is nonzero with the last bytes of the stream
 * (`len` may then be 0); `out` is not used. */
typedef void (*tndm_data_cb)(void* instance, void* connection, uint64_t stream_id, int fin, const uint8_t* data,
                             uint32_t len, int* out);
/* Asks for the socket of a path; 0 or less means that there is none now. Towards an IPv6 address of the server
 * TNDM_PATH_FAMILY_IPV6 stands behind the path's text: tndm_open_socket obeys it, whatever family it is given. */
#define TNDM_PATH_FAMILY_IPV6 ";family:ipv6"
typedef int (*tndm_create_path_cb)(void* opaque, const char* path);
/* The socket of a path has failed and is given back. */
typedef int (*tndm_path_broken_cb)(void* opaque, const char* path, int socket);
/* Smoothed round trip in microseconds, congestion window in bytes, bytes in flight, delivery rate in bytes a second,
 * bytes lost. */
typedef void (*tndm_statistics_cb)(void* instance, void* connection, uint64_t rtt, uint64_t window, uint64_t in_flight,
                                   uint64_t rate, uint64_t lost);

/* What an instance is made with. The texts of all records must outlive the instance. */
typedef struct {
    uint32_t param_a;               /* the most streams open at once in each direction of a connection */
    const char* congestion_control; /* "reno", "cubic", "bbr" or "bbr1" */
    bool flag;                      /* tracing on standard error */
    uint32_t param_c;               /* the largest UDP payload in bytes before path MTU discovery */
    uint32_t param_b;               /* the first receive window of a stream in bytes */
    st_tloop_t* loop;
} st_tndm_instance_t;

typedef struct {
    const char* alpn;
    void* reserved_04;
    const char* cert; /* PEM files: certificate chain and private key */
    const char* key;
    void* reserved_10[2];
    tndm_connection_cb on_established;
    tndm_connection_cb on_disconnected;
    tndm_data_cb on_data;
    void* reserved_24[2];
} st_tndm_server_t;

typedef struct {
    uint8_t reserved_00[0x15];
    char text[128]; /* how the server's certificate is checked: empty, or key:value; pairs of ca, name, pin, insecure */
    uint32_t reserved_98;
    const char* alpn;
    uint32_t reserved_a0[67];
    uint32_t param;           /* the seconds that a connection outlives its last working path */
    uint32_t calculate_param; /* the milliseconds between statistics callbacks */
    tndm_connection_cb on_established;
    tndm_connection_cb on_disconnected;
    tndm_data_cb on_data;
    void* reserved_1c0[2];
    tndm_create_path_cb create_path;
    tndm_path_broken_cb path_broken;
    tndm_statistics_cb statistics;
} st_tndm_client_t;

/* CONNECTED: joined and answering. CONNECTING: its first handshake, or one after a failure, is under way. DEAD: it has
 * stopped answering, or is gone and waits for the next try; at a server: the client has no subflow on it now. IDLE: a
 * backup path while another one answers, or a path that has not been tried yet. */
enum { TNDM_PATH_IDLE = 0, TNDM_PATH_CONNECTED = 1, TNDM_PATH_CONNECTING = 2, TNDM_PATH_DEAD = 3 };

/* One path of a connection; the byte offsets are the same on every machine. Counters are cumulative over the subflows
 * that a path of this name has had within the connection, and never go backwards. The other figures are of now: 0 when
 * the path has no subflow, the last known ones when it has stopped answering. */
typedef struct {
    char name[128];
    int32_t state; /* TNDM_PATH_* */
    uint8_t reserved_084[268];
    uint64_t packets_sent;
    uint64_t packets_received;
    uint8_t reserved_1a0[80];
    uint64_t rtt; /* smoothed, microseconds */
    uint8_t reserved_1f8[72];
    uint64_t delivery_rate; /* bytes a second */
    uint8_t reserved_248[32];
    uint64_t window; /* congestion window, bytes */
    uint8_t reserved_270[8];
    uint64_t pacing_rate; /* bytes a second */
    uint8_t reserved_280[40];
    uint64_t packets_lost;
    uint64_t bytes_resent;
    uint64_t bytes_sent;
    uint64_t bytes_received;
} st_tndm_path_info_t;

/* Null when the record is not usable: no loop, or an unknown congestion control. */
TANDEM_PLATFORM_API void* tndm_create_instance(const st_tndm_instance_t* record, void* user_data);
/* Closes every connection and frees the instance; no callback runs after it has returned (called from inside a
 * callback: after that one). */
TANDEM_PLATFORM_API void tndm_destroy_instance(void* instance);
/* 0 on success. The client connects as soon as it has a path, and again whenever its connection has ended. */
TANDEM_PLATFORM_API int tndm_start_client(void* instance, const char* host, uint16_t port,
                                          const st_tndm_client_t* record);
/* 0 on success. The socket stays the caller's. */
TANDEM_PLATFORM_API int tndm_start_server(void* instance, int socket, const st_tndm_server_t* record);
/* A non-blocking UDP socket of `family` on `port` (0: any), bound to `path` (an interface or a local address) unless
 * that is null or empty; -1 on failure. An IPv6 socket bound to no address serves IPv4, too. */
TANDEM_PLATFORM_API int tndm_open_socket(int family, uint16_t port, const char* path);
TANDEM_PLATFORM_API void tndm_close_socket(int socket);
/* `path` is the name of an interface or a local address, then options: "wwan0;backup:yes" is used only while no path
 * without that option works. A failure: an unknown option or value, no name, or a name that is there already (with
 * whatever options: remove it first). */
TANDEM_PLATFORM_API int tndm_add_path(void* instance, const char* path);
/* By the name alone or the whole text. */
TANDEM_PLATFORM_API int tndm_remove_path(void* instance, const char* path);
TANDEM_PLATFORM_API void* tndm_get_instance_userdata(void* instance);
/* 0 on success: the ALPN as a terminated text. */
TANDEM_PLATFORM_API int tndm_get_connection_alpn(void* connection, char* buffer, uint32_t size);
TANDEM_PLATFORM_API int tndm_is_client_instance(void* instance);
/* Reserves the next stream of this side; `flag` asks for one that only this side writes. All ones when no stream can be
 * had. */
TANDEM_PLATFORM_API uint64_t tndm_get_next_local_stream_id(void* connection, bool flag);
/* Queues a copy of the bytes; `fin` ends this side of the stream. */
TANDEM_PLATFORM_API int tndm_add_to_stream(void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len,
                                           int fin);
/* The same without the copy: on success the `malloc`ed buffer is the transport's. */
TANDEM_PLATFORM_API int tndm_add_to_stream_ext(void* connection, uint64_t stream_id, uint8_t* data, uint32_t len,
                                               int fin);
/* Closes the connection; its disconnection callback comes later, never from inside this call. */
TANDEM_PLATFORM_API void tndm_delete_connection(void* instance, void* connection);
/* Probes idle paths every `a` milliseconds (0: a default), so that the connection stays up and a dead path is noticed.
 * `context` and `b` are not used. */
TANDEM_PLATFORM_API int tndm_enable_keep_alive(void* connection, void* context, uint32_t a, uint32_t b);
/* Bytes handed to the connection, and bytes of those sent, since it was established. What is sent is counted after it
 * has left, so the peer may have it a moment before. */
TANDEM_PLATFORM_API uint64_t tndm_get_bytes_queued(void* connection);
TANDEM_PLATFORM_API uint64_t tndm_get_data_sent(void* connection);
/* Fills at most `count` pointers with one record a path, each to be released with free(); the number filled, or -1.
 * A client lists the paths that it was given, in the order of tndm_add_path, under their names without options. A
 * server lists those that the client has used in this connection, in the order of their first use; of those that are
 * DEAD it remembers the latest 32. */
TANDEM_PLATFORM_API int tndm_get_path_info_by_connection(void* instance, void* connection,
                                                         st_tndm_path_info_t** records, int count);

/* Further functions. A transport may lack them: they are weak, so look whether the address is null before a call. */

/* Runs on the loop's thread once a stream's backlog has come down to what was asked for with tndm_request_writable. */
typedef void (*tndm_writable_cb)(void* instance, void* connection, uint64_t stream_id);
/* Why a client has no connection; `text` is one line for a person. */
enum { TNDM_PROBLEM_UNREACHABLE = 1, TNDM_PROBLEM_CERTIFICATE = 2, TNDM_PROBLEM_REFUSED = 3, TNDM_PROBLEM_NAME = 4 };
typedef void (*tndm_problem_cb)(void* instance, int problem, const char* text);

#define TANDEM_PLATFORM_WEAK TANDEM_PLATFORM_API __attribute__((weak))
TANDEM_PLATFORM_WEAK int tndm_set_writable_callback(void* instance, tndm_writable_cb callback);
/* A client's failed attempts to connect, told on the loop's thread. */
TANDEM_PLATFORM_WEAK int tndm_set_problem_callback(void* instance, tndm_problem_cb callback);
/* Which path carries what, in both directions of a client's connection; before the start, and a server obeys its
 * clients. "default": every path carries what it delivers sooner than the others would. "redundant": everything on
 * every path. Another name is a failure. */
TANDEM_PLATFORM_WEAK int tndm_set_schedule(void* instance, const char* name);
/* Bytes queued on the stream and not sent yet; 0 for an unknown stream. */
TANDEM_PLATFORM_WEAK uint64_t tndm_get_stream_backlog(void* connection, uint64_t stream_id);
/* Asks for one writable callback when the stream's backlog is at or below `low_water` bytes (at once if it is already).
 */
TANDEM_PLATFORM_WEAK int tndm_request_writable(void* connection, uint64_t stream_id, uint64_t low_water);
/* While a stream is paused nothing of it is delivered and its window does not grow. */
TANDEM_PLATFORM_WEAK int tndm_pause_stream(void* connection, uint64_t stream_id, int pause);
/* Nobody reads the stream any more: the peer is told that it need not send the rest. Its writes to the stream fail
 * then, what it had not sent yet is dropped, and the stream ends early; what comes until then is delivered all the
 * same. */
TANDEM_PLATFORM_WEAK int tndm_stop_stream(void* connection, uint64_t stream_id);
/* The address of one of the peer's ends of the connection, the first that still is, as a terminated text without a
 * port. 0, or -1 when there is none just now. */
TANDEM_PLATFORM_WEAK int tndm_get_peer_address(void* connection, char* buffer, uint32_t size);
#undef TANDEM_PLATFORM_WEAK

#ifdef __cplusplus
} /* extern "C" */

#define TANDEM_OFFSET(record, member, offset) static_assert(offsetof(record, member) == (offset), #member)
TANDEM_OFFSET(st_tndm_path_info_t, state, 128);
TANDEM_OFFSET(st_tndm_path_info_t, packets_sent, 400);
TANDEM_OFFSET(st_tndm_path_info_t, packets_received, 408);
TANDEM_OFFSET(st_tndm_path_info_t, rtt, 496);
TANDEM_OFFSET(st_tndm_path_info_t, delivery_rate, 576);
TANDEM_OFFSET(st_tndm_path_info_t, window, 616);
TANDEM_OFFSET(st_tndm_path_info_t, pacing_rate, 632);
TANDEM_OFFSET(st_tndm_path_info_t, packets_lost, 680);
TANDEM_OFFSET(st_tndm_path_info_t, bytes_resent, 688);
TANDEM_OFFSET(st_tndm_path_info_t, bytes_sent, 696);
TANDEM_OFFSET(st_tndm_path_info_t, bytes_received, 704);
static_assert(offsetof(st_tndm_connection_id_t, length) == 20 && sizeof(st_tndm_connection_id_t) == 21, "id record");

#if UINTPTR_MAX == UINT32_MAX
TANDEM_OFFSET(st_tndm_instance_t, congestion_control, 0x04);
TANDEM_OFFSET(st_tndm_instance_t, flag, 0x08);
TANDEM_OFFSET(st_tndm_instance_t, param_c, 0x0c);
TANDEM_OFFSET(st_tndm_instance_t, param_b, 0x10);
TANDEM_OFFSET(st_tndm_instance_t, loop, 0x14);
TANDEM_OFFSET(st_tndm_server_t, cert, 0x08);
TANDEM_OFFSET(st_tndm_server_t, key, 0x0c);
TANDEM_OFFSET(st_tndm_server_t, on_established, 0x18);
TANDEM_OFFSET(st_tndm_server_t, on_disconnected, 0x1c);
TANDEM_OFFSET(st_tndm_server_t, on_data, 0x20);
static_assert(sizeof(st_tndm_server_t) == 0x2c, "server record");
TANDEM_OFFSET(st_tndm_client_t, alpn, 0x9c);
TANDEM_OFFSET(st_tndm_client_t, param, 0x1ac);
TANDEM_OFFSET(st_tndm_client_t, calculate_param, 0x1b0);
TANDEM_OFFSET(st_tndm_client_t, on_established, 0x1b4);
TANDEM_OFFSET(st_tndm_client_t, on_disconnected, 0x1b8);
TANDEM_OFFSET(st_tndm_client_t, on_data, 0x1bc);
TANDEM_OFFSET(st_tndm_client_t, create_path, 0x1c8);
TANDEM_OFFSET(st_tndm_client_t, path_broken, 0x1cc);
TANDEM_OFFSET(st_tndm_client_t, statistics, 0x1d0);
static_assert(sizeof(st_tndm_client_t) == 468, "client record");
#endif
TANDEM_OFFSET(st_tndm_client_t, text, 0x15);
#undef TANDEM_OFFSET
#endif

#endif /* TANDEM_LINK_TNDM_H */

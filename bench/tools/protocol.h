#ifndef TANDEM_BENCH_TOOLS_PROTOCOL_H
#define TANDEM_BENCH_TOOLS_PROTOCOL_H

#include <cstdint>

#include "bench/tools/sockets.h"

namespace bench {

/** What a client asks of the target; both run on one machine, so it travels as it stands in memory. */
struct request {
    enum kind : uint64_t {
        upload,   /* `bytes` follow; the target answers one byte when it has them all, so that a tunnel's buffers do not
                     count */
        download, /* the target sends `bytes` */
        exchange  /* `bytes`, this record included, come and as many go back */
    };
    uint64_t wanted;
    uint64_t bytes;
};

/** Serves requests on a port of the system's choice, which it prints, until the process ends. */
[[noreturn]] void serve();

/** Transfers `bytes` bytes over one connection and gives the seconds from connecting until the receiving end had them
 * all. */
double transfer(uint16_t port, request::kind direction, uint64_t bytes);

/** Makes `count` connections in all, `parallel` at a time, each carrying `bytes` each way; gives the seconds. */
double exchange_many(uint16_t port, unsigned count, unsigned parallel, uint64_t bytes);

}  // namespace bench

#endif /* TANDEM_BENCH_TOOLS_PROTOCOL_H */

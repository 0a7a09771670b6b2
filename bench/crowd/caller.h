#ifndef TANDEM_BENCH_CROWD_CALLER_H
#define TANDEM_BENCH_CROWD_CALLER_H

#include <chrono>
#include <cstdint>
#include <vector>

#include "bench/crowd/sockets.h"

namespace bench {

/** The calling end of a crowd. Whatever does not come within `patience` ends in an exception that counts what is
 * missing. */
class caller {
  public:
    explicit caller(uint16_t port) : port_(port) {}
    caller(const caller&) = delete;
    caller& operator=(const caller&) = delete;
    ~caller();

    /** Opens connections, `at_once` on their way at any time, and keeps them; the seconds until the last has echoed. */
    double open_idle(unsigned count);
    /** Sends a byte over the first `count` idle ones, all at once; the seconds until all are back. */
    double ping(unsigned count);

    struct downloaded {
        double mbit;                /* payload of all, a second */
        double least_kib, most_kib; /* of one connection */
        double started;             /* seconds until each had got something */
    };
    downloaded download(unsigned count, double seconds);

  private:
    static constexpr unsigned at_once = 256;
    static constexpr auto patience = std::chrono::seconds(120);

    std::vector<int> open(poller& events, unsigned count, char kind);

    const uint16_t port_;
    std::vector<int> idle_;
};

}  // namespace bench

#endif /* TANDEM_BENCH_CROWD_CALLER_H */

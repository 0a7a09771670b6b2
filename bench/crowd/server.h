#ifndef TANDEM_BENCH_CROWD_SERVER_H
#define TANDEM_BENCH_CROWD_SERVER_H

namespace bench {

/** Serves echoes and endless downloads on a port of the system's choice, which it prints, until the process ends. */
[[noreturn]] void serve_crowd();

}  // namespace bench

#endif /* TANDEM_BENCH_CROWD_SERVER_H */

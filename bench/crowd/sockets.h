#ifndef TANDEM_BENCH_CROWD_SOCKETS_H
#define TANDEM_BENCH_CROWD_SOCKETS_H

#include <sys/epoll.h>

#include <cstdint>

namespace bench {

/** Descriptors as many as the system lets this process have. */
void raise_descriptor_limit();

/** Non-blocking TCP on 127.0.0.1; failures throw std::system_error. */
int start_connecting(uint16_t port);
/** On a port of the system's choice, which `port` receives. */
int listen_anywhere(uint16_t& port);

/** What a connection waits for. */
class poller {
  public:
    poller();
    poller(const poller&) = delete;
    poller& operator=(const poller&) = delete;
    ~poller();

    void add(int fd, uint32_t events, uint64_t tag) const;
    void change(int fd, uint32_t events, uint64_t tag) const;
    /** Calls `each` with the tag and the events of what is ready; waits at most `milliseconds` (-1: for ever). */
    template <class Function>
    void wait(int milliseconds, Function each) {
        const int ready = collect(milliseconds);
        for (int i = 0; i < ready; ++i)
            each(events_[i].data.u64, events_[i].events);
    }

  private:
    int collect(int milliseconds);

    int fd_;
    epoll_event events_[256];
};

}  // namespace bench

#endif /* TANDEM_BENCH_CROWD_SOCKETS_H */

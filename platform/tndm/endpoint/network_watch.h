// Reads what the kernel tells about interfaces, addresses and routes (rtnetlink) into a link_table.
//
// Loop thread. Messages that the kernel had to drop are made good by reading everything again.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_NETWORK_WATCH_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_NETWORK_WATCH_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "platform/tndm/core/time.h"
#include "platform/tndm/endpoint/link_table.h"
#include "platform/tndm/endpoint/reactor.h"

struct nlmsghdr;

namespace tndm {

class network_watch {
  public:
    // Null when the kernel gives no such socket: paths are then only known by trying. `on_readable` should call read().
    static std::unique_ptr<network_watch> open(st_tloop_t* loop, std::function<void()> on_readable);
    ~network_watch();
    network_watch(const network_watch&) = delete;
    network_watch& operator=(const network_watch&) = delete;

    // Takes what waits, a bounded part of it when there is very much. False when the socket is of no use any more.
    bool read(link_table& into, core::instant now);
    // Tables that change all the time would be read without end: what was torn is read again after a pause.
    core::instant deadline() const { return repeat_at_; }
    // False as above.
    bool on_time(core::instant now);

  private:
    enum class dump { none, links, addresses };

    explicit network_watch(int fd) : fd_(fd) {}
    bool ask(dump what);
    void on_message(const nlmsghdr& message, link_table& into, core::instant now);
    static void on_address(const nlmsghdr& message, link_table& into);
    void on_dump_end(bool whole, link_table& into, core::instant now);

    int fd_;
    std::unique_ptr<io_watcher> watcher_;
    dump dump_ = dump::none;
    bool again_ = true;    // something was missed: everything must be read once more
    bool torn_ = false;    // the tables changed under the dump
    bool failed_ = false;  // the kernel does not answer
    uint32_t sequence_ = 0;
    core::instant repeat_at_ = core::never;
};

}  // namespace tndm

#endif

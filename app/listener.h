#ifndef TANDEM_APP_LISTENER_H
#define TANDEM_APP_LISTENER_H

#include <sys/socket.h>

#include "app/endpoint.h"
#include "app/file.h"

namespace tandem::app {

// A listening TCP socket (SOCK_STREAM) or a bound UDP socket (SOCK_DGRAM) on a numeric address, non-blocking. `where`
// says what is bound: a port of 0 is replaced by the one that the system chose. Throws failure_t.
struct listener_t {
    explicit listener_t(const endpoint_t& address, int type = SOCK_STREAM);

    file_t socket;
    endpoint_t where;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_LISTENER_H

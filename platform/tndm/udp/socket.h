/* UDP sockets bound to one network path. */
#ifndef TANDEM_PLATFORM_TNDM_UDP_SOCKET_H
#define TANDEM_PLATFORM_TNDM_UDP_SOCKET_H

#include <cstdint>

#include "platform/tndm/udp/address.h"

namespace tndm {

/* A non-blocking, close-on-exec UDP socket of `family` (AF_INET or AF_INET6) on local `port` (0: any); the caller owns
 * it. -1 with errno on failure: ENODEV when `path` is no interface, EADDRNOTAVAIL when the interface has no address of
 * the family.
 *
 * `path`: null or empty, the wildcard address; a numeric local address, that address; else the name of an interface, to
 * which the socket is bound (with SO_BINDTODEVICE; a process that may not do that binds to the interface's first
 * address instead, so that source routing decides). What follows a ';' ("eth1;backup:yes") is not part of the name.
 *
 * The socket has large buffers, reports the local address and the ECN bits of each datagram, coalesces on receipt where
 * the kernel can (UDP_GRO), and sends with "don't fragment" while ignoring the kernel's idea of the path MTU. An IPv6
 * wildcard socket also serves IPv4, with IPv4-mapped addresses. */
int open_path_socket(int family, uint16_t port, const char* path);

/* Whether a socket of `path` (as above) can be had now and has a route to `remote`. Sends nothing. */
bool can_reach(const char* path, const endpoint& remote);

/* What the socket is bound to; nothing on failure. */
endpoint local_endpoint(int fd);

/* Whether this errno of a send or receive means that the socket will never work again (its interface or address is
 * gone, or it is no such socket) and not that one packet failed. EINVAL is left to the caller: a send from a bound
 * address that has gone gives it. */
bool is_dead_socket_error(int error);

}  // namespace tndm

#endif

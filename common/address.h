// Socket addresses from text and to text. All functions are reentrant.
#ifndef TANDEM_COMMON_ADDRESS_H
#define TANDEM_COMMON_ADDRESS_H

#include <sys/socket.h>

#include <cstdint>

#include "common/export.h"

// Turns a host text and a port (host byte order) into an address; 0 on success, -1 on failure (told on standard error).
// An empty text or one that begins with `*` is the IPv4 wildcard, one that begins with `[*]` the IPv6 wildcard; then
// come numeric addresses. Anything else is a name: `is_name` becomes true, and the name is looked up, which may block
// for seconds, unless `defer_lookup` is set: then `out` stays zero (family 0) and the result is 0.
TANDEM_API int t_get_address(const char* host, uint16_t port, sockaddr_storage* out, bool& is_name, bool defer_lookup);

// The numeric address as a terminated text; `port` may be null. 1 on success, 0 when the text does not fit, -1 for bad
// arguments or another family.
TANDEM_API int t_format_sockaddr(sockaddr_storage* addr, char* buf, uint32_t buf_len, uint16_t* port);

// "address:port", without brackets around an IPv6 address. The characters written, or 0 (`buf` then holds what fitted)
// or -1 as above.
TANDEM_API int t_format_sockaddr_with_port(sockaddr_storage* addr, char* buf, uint32_t buf_len);

#endif  // TANDEM_COMMON_ADDRESS_H

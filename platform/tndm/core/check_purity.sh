#!/bin/sh
# check_purity.sh NM LIBRARY: fails when the library needs a socket, a clock, a thread or the QUIC library.
symbols=$("$1" -u -C "$2" | grep " U ") || exit 1
impure=$(printf '%s\n' "$symbols" |
    grep -E '\b(ngtcp2_|gnutls_|socket|bind|connect|send|sendto|sendmsg|sendmmsg|recv|recvfrom|recvmsg|recvmmsg|poll|epoll_|timerfd_|clock_gettime|gettimeofday|time|nanosleep|pthread_)|chrono::_V2|random_device' |
    grep -vE 'tndm::core::|std::__throw')
if [ -n "$impure" ]; then
    echo "the core is not pure: $2 needs" >&2
    printf '%s\n' "$impure" >&2
    exit 1
fi

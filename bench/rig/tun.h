#ifndef TANDEM_BENCH_RIG_TUN_H
#define TANDEM_BENCH_RIG_TUN_H

#include <cstddef>
#include <string>
#include <utility>

namespace rig {

/** A TUN device (layer 3, no header, no offloads) in a named network namespace. It is gone when this object is. Its
 * name and namespace are given once; addresses, routes and the state up or down belong to whoever set up the namespace.
 */
class tun {
  public:
    /** `network` as `ip netns` names it. Throws std::system_error; the calling thread is back in its own namespace
     * either way. */
    tun(const std::string& network, const std::string& device);
    tun(tun&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    tun(const tun&) = delete;
    tun& operator=(const tun&) = delete;
    ~tun();

    int fd() const { return fd_; }
    /** The next packet that the namespace sends, at most `room` bytes of it; 0 when there is none just now. */
    size_t read(void* data, size_t room) const;
    /** False when the device does not take it (it is down). */
    bool write(const void* data, size_t bytes) const;

  private:
    int fd_ = -1;
};

}  // namespace rig

#endif /* TANDEM_BENCH_RIG_TUN_H */

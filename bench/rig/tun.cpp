#include "bench/rig/tun.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace rig {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class descriptor {
  public:
    descriptor(const std::string& path, int flags) : fd(::open(path.c_str(), flags | O_CLOEXEC)) {
        if (fd < 0) fail(path);
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    ~descriptor() {
        if (fd >= 0) ::close(fd);
    }
    int release() { return std::exchange(fd, -1); }

    int fd;
};

/* The calling thread is in another network namespace for as long as this lives. */
class visit {
  public:
    explicit visit(const std::string& network)
        : home_("/proc/thread-self/ns/net", O_RDONLY), there_("/run/netns/" + network, O_RDONLY) {
        if (::setns(there_.fd, CLONE_NEWNET) != 0) fail("namespace " + network);
    }
    visit(const visit&) = delete;
    visit& operator=(const visit&) = delete;
    ~visit() {
        // Going on in the wrong namespace would be worse than ending.
        if (::setns(home_.fd, CLONE_NEWNET) != 0) std::terminate();
    }

  private:
    descriptor home_;
    descriptor there_;
};

}  // namespace

tun::tun(const std::string& network, const std::string& device) {
    if (device.empty() || device.size() >= IFNAMSIZ) throw std::invalid_argument("not a device name: '" + device + "'");
    const visit there(network);
    // The device belongs to the namespace in which the file was opened.
    descriptor opened("/dev/net/tun", O_RDWR | O_NONBLOCK);
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::memcpy(request.ifr_name, device.data(), device.size());
    if (::ioctl(opened.fd, TUNSETIFF, &request) != 0) fail("device " + device + " in namespace " + network);
    fd_ = opened.release();
}

tun::~tun() {
    if (fd_ >= 0) ::close(fd_);
}

size_t tun::read(void* data, size_t room) const {
    const ssize_t bytes = ::read(fd_, data, room);
    if (bytes > 0) return static_cast<size_t>(bytes);
    // EIO, EBADFD: the device is down, or is gone with its namespace. Its packets are simply not there.
    return 0;
}

bool tun::write(const void* data, size_t bytes) const {
    return ::write(fd_, data, bytes) >= 0;
}

}  // namespace rig

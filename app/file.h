#ifndef TANDEM_APP_FILE_H
#define TANDEM_APP_FILE_H

#include <unistd.h>

#include <utility>

namespace tandem::app {

// Owns a file descriptor; -1 is none.
class file_t {
  public:
    explicit file_t(int fd = -1) : fd_(fd) {}
    file_t(file_t&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    file_t& operator=(file_t&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    file_t(const file_t&) = delete;
    file_t& operator=(const file_t&) = delete;
    ~file_t() {
        if (fd_ >= 0) close(fd_);
    }

    int fd() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_FILE_H

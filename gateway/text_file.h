#ifndef TANDEM_GATEWAY_TEXT_FILE_H
#define TANDEM_GATEWAY_TEXT_FILE_H

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace tandem {

// Owns a file descriptor; -1 is none.
class descriptor_t {
  public:
    explicit descriptor_t(int fd = -1) : fd_(fd) {}
    descriptor_t(descriptor_t&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor_t& operator=(descriptor_t&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    descriptor_t(const descriptor_t&) = delete;
    descriptor_t& operator=(const descriptor_t&) = delete;
    ~descriptor_t() {
        if (fd_ >= 0) close(fd_);
    }

    int fd() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

// Both return what is wrong and how to mend it, behind the file's name; empty when all is well.

// Whose a private file may be: this process's user's or root's; or, when this process is root, anybody's, for root
// keeps the files of services that have users of their own.
enum class private_to_t { this_user, whom_root_serves };
// Whether an open file is regular, belongs to whom it may, and is closed to everybody else.
std::string check_private(const std::string& path, int fd, private_to_t whom = private_to_t::this_user);
// A regular file of at most 1 MiB, from its beginning.
std::string read_text(const std::string& path, int fd, std::string& text);
std::string read_text(const std::string& path, std::string& text);

// Tells when a file has become another one, or has other contents, and has rested from one look to the next: half of
// what somebody is writing is not read. A file that is missing is one too.
class file_watch_t {
  public:
    explicit file_watch_t(std::string path) : path_(std::move(path)) {
        is_changed();
        changing_ = false;
    }
    const std::string& path() const { return path_; }
    // Since the last call, or construction.
    bool is_changed();

  private:
    std::string path_;
    struct stat last_ {};
    bool changing_ = false;  // at the last look
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_TEXT_FILE_H

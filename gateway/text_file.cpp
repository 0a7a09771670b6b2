#include "gateway/text_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace tandem {
namespace {

constexpr size_t longest_file = size_t{1} << 20;

}  // namespace

std::string check_private(const std::string& path, int fd, private_to_t whom) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return path + " is not a regular file";
    const bool any_owner = whom == private_to_t::whom_root_serves && geteuid() == 0;
    if (status.st_uid != geteuid() && status.st_uid != 0 && !any_owner) {
        return path + " belongs to another user; run: chown " + std::to_string(geteuid()) + " " + path;
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return path + " is open to other users; run: chmod 600 " + path;
    }
    return {};
}

std::string read_text(const std::string& path, int fd, std::string& text) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return path + " is not a regular file";
    text.clear();
    char buffer[4096];
    while (true) {
        const ssize_t got = pread(fd, buffer, sizeof(buffer), static_cast<off_t>(text.size()));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return path + " cannot be read (" + std::strerror(errno) + ")";
        if (got == 0) return {};
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > longest_file) return path + " is longer than 1 MiB; make it shorter";
    }
}

std::string read_text(const std::string& path, std::string& text) {
    // Without O_NONBLOCK opening a FIFO would wait for a writer.
    const descriptor_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return path + " cannot be opened (" + std::strerror(errno) + ")";
    return read_text(path, file.fd(), text);
}

bool file_watch_t::is_changed() {
    struct stat now {};
    if (stat(path_.c_str(), &now) != 0) now = {};
    const bool same = now.st_dev == last_.st_dev && now.st_ino == last_.st_ino && now.st_size == last_.st_size &&
                      now.st_mode == last_.st_mode && now.st_uid == last_.st_uid &&
                      now.st_mtim.tv_sec == last_.st_mtim.tv_sec && now.st_mtim.tv_nsec == last_.st_mtim.tv_nsec;
    last_ = now;
    return std::exchange(changing_, !same) && same;
}

}  // namespace tandem

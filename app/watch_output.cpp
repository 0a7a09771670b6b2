#include "app/watch_output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tandem::app {
namespace {

// A regular file neither blocks nor may be opened again: its offset belongs to whoever opened it.
file_t open_again(int fd) {
    struct stat info {};
    if (fstat(fd, &info) != 0 || (!S_ISFIFO(info.st_mode) && !S_ISCHR(info.st_mode))) return file_t();
    return file_t(open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool is_socket(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISSOCK(info.st_mode);
}

}  // namespace

watch_output_t::watch_output_t(int fd, bool in_place)
    : fd_(fd), own_(open_again(fd)), socket_(is_socket(fd)), in_place_(in_place && isatty(fd) != 0) {}

void watch_output_t::show(std::string_view text) {
    if (broken_ || !flush()) return;
    if (!in_place_) {
        pending_ = text;
    } else {
        winsize size{};
        const bool known = ioctl(fd_, TIOCGWINSZ, &size) == 0;
        const size_t rows = known && size.ws_row > 2 ? size.ws_row - 1U : 0;
        const std::string shown = cut_to_screen(text, rows, known ? size.ws_col : 0);
        // The cursor stands below the last text: up to its first line, and clear from there on.
        if (drawn_lines_ != 0) pending_ = "\x1b[" + std::to_string(drawn_lines_) + "A\r\x1b[J";
        pending_ += shown;
        drawn_lines_ = static_cast<size_t>(std::count(shown.begin(), shown.end(), '\n'));
    }
    flush();
}

bool watch_output_t::flush() {
    while (!pending_.empty() && !broken_) {
        const ssize_t written = write_some();
        if (written > 0) {
            pending_.erase(0, static_cast<size_t>(written));
        } else if (errno == EAGAIN) {
            return false;
        } else if (errno != EINTR) {
            broken_ = true;
        }
    }
    return !broken_;
}

ssize_t watch_output_t::write_some() const {
    if (own_) return write(own_.fd(), pending_.data(), pending_.size());
    if (socket_) return send(fd_, pending_.data(), pending_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    // What is writable at all takes this much without waiting.
    pollfd ready{fd_, POLLOUT, 0};
    if (poll(&ready, 1, 0) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return write(fd_, pending_.data(), std::min<size_t>(pending_.size(), PIPE_BUF));
}

std::string cut_to_screen(std::string_view text, size_t rows, size_t columns) {
    std::string shown;
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    const size_t whole = rows == 0 || lines <= rows ? lines : rows - 1;
    for (size_t i = 0; i < whole; ++i) {
        const size_t end = text.find('\n');
        shown += text.substr(0, columns == 0 ? end : std::min(end, columns));
        shown += '\n';
        text.remove_prefix(end + 1);
    }
    if (whole < lines) shown += "... " + std::to_string(lines - whole) + " more lines\n";
    return shown;
}

}  // namespace tandem::app

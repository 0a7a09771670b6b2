#include "gateway/user_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tandem {
namespace {

std::string fault(const std::string& path, const char* what) {
    return path + " " + what + " (" + std::strerror(errno) + ")";
}

// Opens and locks the file that has the name at that moment.
std::string lock_file(const std::string& path, descriptor_t& out) {
    while (true) {
        descriptor_t file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0600));
        if (!file) return fault(path, "cannot be opened");
        struct stat held {};
        struct stat named {};
        if (flock(file.fd(), LOCK_EX) != 0 || fstat(file.fd(), &held) != 0) return fault(path, "cannot be locked");
        // Somebody may have put another file in its place meanwhile.
        if (stat(path.c_str(), &named) != 0 || held.st_ino != named.st_ino || held.st_dev != named.st_dev) continue;
        out = std::move(file);
        return {};
    }
}

// The file that is open as `old` gives its owner and mode to the one that takes its place.
std::string replace_file(const std::string& path, int old, const std::string& text) {
    struct stat kept {};
    if (fstat(old, &kept) != 0) return fault(path, "cannot be replaced");
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    {
        const descriptor_t file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file) return fault(fresh, "cannot be made");
        for (size_t done = 0; done < text.size();) {
            const ssize_t wrote = write(file.fd(), text.data() + done, text.size() - done);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote <= 0) return fault(fresh, "cannot be written");
            done += static_cast<size_t>(wrote);
        }
        const bool given =
            geteuid() != 0 || fchown(file.fd(), kept.st_uid, kept.st_gid) == 0;  // others can only have their own
        if (!given || fchmod(file.fd(), kept.st_mode & 07777) != 0) return fault(fresh, "cannot be given its owner");
        if (fsync(file.fd()) != 0) return fault(fresh, "cannot be written");
    }
    if (rename(fresh.c_str(), path.c_str()) != 0) return fault(path, "cannot be replaced");
    return {};
}

std::string read_list(const std::string& path, int fd, user_list_t& users, private_to_t whom) {
    std::string text;
    std::string wrong = check_private(path, fd, whom);
    if (wrong.empty()) wrong = read_text(path, fd, text);
    if (!wrong.empty()) return wrong;
    wrong = users.read(text);
    return wrong.empty() ? wrong : path + ", " + wrong;
}

}  // namespace

std::string read_user_file(const std::string& path, user_list_t& users, private_to_t whom) {
    const descriptor_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return fault(path, "cannot be opened") + "; make it with: tandem user add ID --users " + path;
    return read_list(path, file.fd(), users, whom);
}

std::string change_user_file(const std::string& path, const std::function<std::string(user_list_t&)>& change) {
    descriptor_t locked;
    std::string wrong = lock_file(path, locked);
    if (!wrong.empty()) return wrong;
    user_list_t users;
    wrong = read_list(path, locked.fd(), users, private_to_t::whom_root_serves);
    if (wrong.empty()) wrong = change(users);
    return wrong.empty() ? replace_file(path, locked.fd(), users.text()) : wrong;
}

}  // namespace tandem

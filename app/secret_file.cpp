#include "app/secret_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/failure.h"
#include "app/file.h"

namespace tandem::app {
namespace {

constexpr size_t longest_file = 1024;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw failure_t("--secret: the file " + path + " " + why);
}

}  // namespace

std::string read_secret_file(const std::string& path) {
    // Without O_NONBLOCK opening a FIFO would wait for a writer. The mode is asked of the open file, so no other file
    // can slip in between.
    const file_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
        refuse(path, std::string("cannot be opened (") + strerror(errno) +
                         "); give a file of one line that this user can read");
    struct stat status {};
    if (fstat(file.fd(), &status) != 0 || !S_ISREG(status.st_mode))
        refuse(path, "is not a regular file; give a file of one line");
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) refuse(path, "is open to other users; run: chmod 600 " + path);

    char text[longest_file + 1];
    size_t size = 0;
    while (size < sizeof(text)) {
        const ssize_t got = read(file.fd(), text + size, sizeof(text) - size);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) refuse(path, std::string("cannot be read (") + strerror(errno) + ")");
        if (got == 0) break;
        size += static_cast<size_t>(got);
    }
    if (size > longest_file) refuse(path, "is longer than 1024 bytes; give one line");
    std::string line(text, size);
    explicit_bzero(text, sizeof(text));
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) refuse(path, "is empty; write the secret into it, one line");
    if (line.find_first_of(std::string_view("\n\r\0", 3)) != std::string::npos)
        refuse(path, "has more than one line; keep only the secret");
    return line;
}

}  // namespace tandem::app

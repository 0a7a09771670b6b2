#include "app/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/failure.h"
#include "app/file.h"

namespace tandem::app {
namespace {

FILE* duplicate(int fd) {
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    FILE* stream = copy < 0 ? nullptr : fdopen(copy, "w");
    if (stream == nullptr) {
        if (copy >= 0) close(copy);
        throw failure_t(std::string("cannot use the standard streams: ") + strerror(errno));
    }
    setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    return stream;
}

}  // namespace

void open_standard_descriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

standard_streams_t::standard_streams_t(const std::string& log_file) {
    file_t log;
    if (!log_file.empty()) {
        log = file_t(open(log_file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640));
        if (!log) {
            throw failure_t("--log: cannot write " + log_file + " (" + strerror(errno) +
                            "); give a file that this user can write");
        }
    }
    out_ = duplicate(STDOUT_FILENO);
    err_ = duplicate(STDERR_FILENO);
    fflush(stdout);
    dup2(log ? log.fd() : STDERR_FILENO, STDOUT_FILENO);
    if (log) dup2(log.fd(), STDERR_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

standard_streams_t::~standard_streams_t() {
    fflush(stdout);
    dup2(fileno(out_), STDOUT_FILENO);
    dup2(fileno(err_), STDERR_FILENO);
    fclose(out_);
    fclose(err_);
}

}  // namespace tandem::app

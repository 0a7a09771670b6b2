#include "app/cert_command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "app/certificate.h"
#include "app/failure.h"
#include "app/file.h"

namespace tandem::app {
namespace {

[[noreturn]] void fail(const std::string& path, int error) {
    if (error == EEXIST) {
        throw failure_t("--out: " + path + " exists and is kept; give another directory, or move that file away first");
    }
    throw failure_t("--out: cannot write " + path + " (" + strerror(error) +
                    "); give a directory that this user can write to");
}

bool write_all(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno != EINTR) return false;
        if (wrote > 0) done += static_cast<size_t>(wrote);
    }
    return true;
}

// A file under a passing name beside `path`. It appears under its own name only when whole (`publish`), never in the
// place of another file, and is gone unless that happened.
class new_file_t {
  public:
    new_file_t(const std::string& path, const std::string& text, mode_t mode)
        : path_(path), passing_(path + ".XXXXXX") {
        const file_t file(mkostemp(passing_.data(), O_CLOEXEC));  // made exclusively, mode 0600
        if (!file) fail(path_, errno);
        if (write_all(file.fd(), text) && fchmod(file.fd(), mode) == 0 && fsync(file.fd()) == 0) return;
        const int error = errno;
        unlink(passing_.c_str());
        fail(path_, error);
    }
    ~new_file_t() { unlink(passing_.c_str()); }
    new_file_t(const new_file_t&) = delete;
    new_file_t& operator=(const new_file_t&) = delete;

    void publish() const {
        if (link(passing_.c_str(), path_.c_str()) != 0) fail(path_, errno);
    }
    void withdraw() const { unlink(path_.c_str()); }

  private:
    std::string path_;
    std::string passing_;
};

std::string own_name() {
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) != 0 || !is_certificate_name(name)) return "localhost";
    return name;
}

void refuse_existing(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) fail(path, EEXIST);
}

}  // namespace

int run_cert(const cert_command_t& command, FILE* out) {
    const std::string cert_path = command.directory + "/cert.pem";
    const std::string key_path = command.directory + "/key.pem";
    if (mkdir(command.directory.c_str(), 0755) != 0 && errno != EEXIST) fail(command.directory, errno);
    refuse_existing(cert_path);
    refuse_existing(key_path);

    const auto made = make_certificate(command.names.empty() ? std::vector<std::string>{own_name()} : command.names);
    const new_file_t key(key_path, made.key, 0600);
    const new_file_t cert(cert_path, made.cert, 0644);
    key.publish();
    try {
        cert.publish();
    } catch (...) {
        key.withdraw();
        throw;
    }
    fprintf(out, "certificate %s\nkey %s\nfor the client: --trust pin:%s\n", cert_path.c_str(), key_path.c_str(),
            made.pin.c_str());
    return exit_ok;
}

}  // namespace tandem::app

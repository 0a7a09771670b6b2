#ifndef TANDEM_TESTS_COMMON_SCRATCH_H
#define TANDEM_TESTS_COMMON_SCRATCH_H

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace tandem::test {

// A directory that is removed with all its content.
class scratch_t {
  public:
    scratch_t() : directory_(std::filesystem::temp_directory_path() / "tandem-test.XXXXXX") {
        if (mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no directory " + directory_);
    }
    scratch_t(const scratch_t&) = delete;
    scratch_t& operator=(const scratch_t&) = delete;
    ~scratch_t() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    std::string path(const std::string& name) const { return directory_ + "/" + name; }
    // Writes a file with this mode and returns its path.
    std::string write(const std::string& name, const std::string& content, mode_t mode = 0600) const {
        std::string file = path(name);
        std::ofstream(file, std::ios::binary) << content;
        chmod(file.c_str(), mode);
        return file;
    }

  private:
    std::string directory_;
};

}  // namespace tandem::test

#endif  // TANDEM_TESTS_COMMON_SCRATCH_H

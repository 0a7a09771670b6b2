#ifndef TANDEM_APP_SECRET_FILE_H
#define TANDEM_APP_SECRET_FILE_H

#include <string>

namespace tandem::app {

// The secret in `path`: one line of 1 to 1023 bytes, its line end left out. Throws failure_t when the file cannot be
// read, is open to the group or to others, is not a regular file, is empty, longer, or has a second line.
std::string read_secret_file(const std::string& path);

}  // namespace tandem::app

#endif  // TANDEM_APP_SECRET_FILE_H

#ifndef TANDEM_APP_LOCAL_PATH_H
#define TANDEM_APP_LOCAL_PATH_H

#include <string>

namespace tandem::app {

// Whether this machine has the path just now: an address of its own, or an interface of that name. One that it lacks
// may still come, as a modem does.
bool is_path_present(const std::string& path);

}  // namespace tandem::app

#endif  // TANDEM_APP_LOCAL_PATH_H

#ifndef TANDEM_APP_LOCAL_PATH_H
#define TANDEM_APP_LOCAL_PATH_H

#include <string>
#include <string_view>

namespace tandem::app {

// What is wrong with a path's text, NAME or NAME;backup:yes, and how to mend it; empty when nothing is.
std::string path_fault(std::string_view path);
// The part of a path's text that is its name.
std::string path_name(std::string_view path);

// Whether this machine has the path of that name just now: an address of its own, or an interface of that name. One
// that it lacks may still come, as a modem does.
bool is_path_present(const std::string& name);

}  // namespace tandem::app

#endif  // TANDEM_APP_LOCAL_PATH_H

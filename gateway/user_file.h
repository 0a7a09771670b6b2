#ifndef TANDEM_GATEWAY_USER_FILE_H
#define TANDEM_GATEWAY_USER_FILE_H

#include <functional>
#include <string>

#include "gateway/user_list.h"

namespace tandem {

// The file that keeps a user list. Only its owner (this process's user, or root) may have any access to it. All
// functions return what is wrong and how to mend it, behind the file's name; empty when all is well.

std::string read_user_file(const std::string& path, user_list_t& users);

// Reads the list, lets `change` change it (which returns what is wrong, or nothing), and puts the result in the file's
// place as a whole, so that a reader never meets half of it. A file that does not exist is made. Changes by several
// processes at once wait for each other.
std::string change_user_file(const std::string& path, const std::function<std::string(user_list_t&)>& change);

}  // namespace tandem

#endif  // TANDEM_GATEWAY_USER_FILE_H

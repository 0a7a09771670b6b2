#ifndef TANDEM_GATEWAY_USER_FILE_H
#define TANDEM_GATEWAY_USER_FILE_H

#include <functional>
#include <string>

#include "gateway/text_file.h"
#include "gateway/user_list.h"

namespace tandem {

// The file that keeps a user list. Only its owner may have any access to it: this process's user, or root. Root changes
// (and with `whom`, reads) the file of any user, who keeps it, mode and all. All functions return what is wrong and how
// to mend it, behind the file's name; empty when all is well.

std::string read_user_file(const std::string& path, user_list_t& users, private_to_t whom = private_to_t::this_user);

// Reads the list, lets `change` change it (which returns what is wrong, or nothing), and puts the result in the file's
// place as a whole, so that a reader never meets half of it. A file that does not exist is made. Changes by several
// processes at once wait for each other.
std::string change_user_file(const std::string& path, const std::function<std::string(user_list_t&)>& change);

}  // namespace tandem

#endif  // TANDEM_GATEWAY_USER_FILE_H

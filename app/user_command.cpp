#include "app/user_command.h"

#include "app/failure.h"
#include "app/secret_file.h"
#include "gateway/user_file.h"

namespace tandem::app {
namespace {

constexpr private_to_t whom = private_to_t::whom_root_serves;

void check(const std::string& fault) {
    if (!fault.empty()) throw failure_t("--users: " + fault);
}

void add_user(const user_command_t& command, FILE* out) {
    const bool made = command.secret_file.empty();
    const std::string secret = made ? make_secret() : read_secret_file(command.secret_file);
    const std::string hash = secret.empty() ? secret : hash_secret(secret);
    if (hash.empty()) throw failure_t("cannot hash the secret; free some memory (it takes 16 MiB) and try again");
    check(change_user_file(command.users_file, [&](user_list_t& users) {
        users.set(command.id, hash);
        return std::string();
    }));
    if (made) fprintf(out, "%s\n", secret.c_str());
}

}  // namespace

int run_user(const user_command_t& command, FILE* out) {
    if (command.what == user_command_t::add) {
        add_user(command, out);
    } else if (command.what == user_command_t::remove) {
        user_list_t present;
        check(read_user_file(command.users_file, present, whom));  // a wrong name makes no file
        check(change_user_file(command.users_file, [&](user_list_t& users) {
            return users.remove(command.id) ? std::string() : "there is no " + command.id + " in " + command.users_file;
        }));
    } else {
        user_list_t users;
        check(read_user_file(command.users_file, users, whom));
        for (const auto& [id, hash] : users.users())
            fprintf(out, "%s\n", id.c_str());
    }
    return fflush(out) == 0 ? exit_ok : exit_failed;
}

}  // namespace tandem::app

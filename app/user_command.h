#ifndef TANDEM_APP_USER_COMMAND_H
#define TANDEM_APP_USER_COMMAND_H

#include <cstdio>

#include "app/command_line.h"

namespace tandem::app {

// Adds a client to a server's users (a client that is there gets a new secret), removes one, or lists them on `out`.
// Without a file of its own the secret is made here and printed, this once. Throws failure_t; returns the exit code.
int run_user(const user_command_t& command, FILE* out);

}  // namespace tandem::app

#endif  // TANDEM_APP_USER_COMMAND_H

#ifndef TANDEM_APP_CERT_COMMAND_H
#define TANDEM_APP_CERT_COMMAND_H

#include <cstdio>

#include "app/command_line.h"

namespace tandem::app {

// Writes cert.pem and key.pem (mode 0600) into the directory, which it makes when it is missing, and prints to `out`
// where they are and the client's pin text. Never overwrites a file. Throws failure_t; returns the exit code.
int run_cert(const cert_command_t& command, FILE* out);

}  // namespace tandem::app

#endif  // TANDEM_APP_CERT_COMMAND_H

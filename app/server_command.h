#ifndef TANDEM_APP_SERVER_COMMAND_H
#define TANDEM_APP_SERVER_COMMAND_H

#include "app/command_line.h"
#include "app/standard_streams.h"

namespace tandem::app {

// Serves until SIGINT or SIGTERM. Prints "listening on UDP port N" when clients can connect. Throws failure_t; returns
// the exit code.
int run_server(const server_command_t& command, const standard_streams_t& streams);

}  // namespace tandem::app

#endif  // TANDEM_APP_SERVER_COMMAND_H

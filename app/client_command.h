#ifndef TANDEM_APP_CLIENT_COMMAND_H
#define TANDEM_APP_CLIENT_COMMAND_H

#include "app/command_line.h"
#include "app/standard_streams.h"

namespace tandem::app {

// Keeps a link to the server until SIGINT or SIGTERM, and connects again whenever it breaks. Once the server has let
// the client in, prints a line per forward; later "reconnected". Throws failure_t for what does not mend by itself;
// returns the exit code.
int run_client(const client_command_t& command, const standard_streams_t& streams);

}  // namespace tandem::app

#endif  // TANDEM_APP_CLIENT_COMMAND_H

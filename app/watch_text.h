#ifndef TANDEM_APP_WATCH_TEXT_H
#define TANDEM_APP_WATCH_TEXT_H

#include <string>

#include "app/watch_rates.h"

namespace tandem::app {

enum class watch_role_t { client, server };

// For a person: a line about each connection and a row for each of its paths. Nothing but printable ASCII and line
// ends, whatever a peer has said.
std::string watch_table(const watch_report_t& report, watch_role_t role);

// For a program: one JSON object on one line. README.md lists the keys.
std::string watch_json(const watch_report_t& report, watch_role_t role);

}  // namespace tandem::app

#endif  // TANDEM_APP_WATCH_TEXT_H

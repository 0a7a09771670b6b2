#include <cstdio>
#include <exception>
#include <string>
#include <type_traits>
#include <variant>

#include "app/cert_command.h"
#include "app/client_command.h"
#include "app/command_line.h"
#include "app/failure.h"
#include "app/main_loop.h"
#include "app/server_command.h"
#include "app/standard_streams.h"
#include "app/user_command.h"

namespace tandem::app {
namespace {

int report(FILE* err, const char* program, const std::exception& error) {
    const auto* failure = dynamic_cast<const failure_t*>(&error);
    fprintf(err, "%s: %s\n", program, printable(error.what(), 2000).c_str());
    return failure != nullptr ? failure->exit_code() : exit_failed;
}

// A link command has the library's messages sent away; its own failure is still told on the user's standard error.
template <class command_t, class run_t>
int run_link(const command_t& command, run_t run, const char* program) {
    prepare_process();
    const standard_streams_t streams(command.link.log_file);
    try {
        return run(command, streams);
    } catch (const std::exception& error) {
        return report(streams.err(), program, error);
    }
}

int run(const command_t& command) {
    if (const auto* text = std::get_if<show_text_t>(&command))
        return fputs(text->text.c_str(), stdout) < 0 ? exit_failed : exit_ok;
    if (const auto* cert = std::get_if<cert_command_t>(&command)) return run_cert(*cert, stdout);
    if (const auto* user = std::get_if<user_command_t>(&command)) return run_user(*user, stdout);
    if (const auto* server = std::get_if<server_command_t>(&command))
        return run_link(*server, run_server, "tandem server");
    return run_link(std::get<client_command_t>(command), run_client, "tandem client");
}

}  // namespace
}  // namespace tandem::app

int main(int argc, char** argv) {
    using namespace tandem::app;
    open_standard_descriptors();
    try {
        return run(parse_command_line(argc, argv));
    } catch (const std::exception& error) {
        return report(stderr, "tandem", error);
    }
}

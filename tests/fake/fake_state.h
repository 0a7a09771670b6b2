// What the fake's own files share.
#ifndef TANDEM_TESTS_FAKE_STATE_H
#define TANDEM_TESTS_FAKE_STATE_H

#include <memory>

#include "tests/fake/fake_platform.h"

namespace fake {

struct state_t {
    std::mutex mutex;
    std::vector<std::string> calls;
    std::map<std::string, int> failures;  // calls left before the first failure
    // Never freed within a process: a dead handle must stay recognisable.
    std::vector<std::unique_ptr<instance_t>> instances;
    std::vector<std::unique_ptr<connection_t>> connections;
    size_t first_instance = 0;  // since the last reset
    int next_socket = 1000;
};

state_t& state();

// All of these with the state's mutex held.
void record(const std::string& call);
bool fails(const std::string& function);
instance_t* live_instance(void* handle);
connection_t* live_connection(void* handle);

st_tloop_t* add_made_loop();

}  // namespace fake

#endif  // TANDEM_TESTS_FAKE_STATE_H

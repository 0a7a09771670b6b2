#include "forward/if_options.h"

#include "forward/advanced_connection_context.h"

namespace tandem {

void advanced_connection_context_t::set_default_tuntap_device(const std::string& device) {
    std::lock_guard guard(table_lock);
    tuntap_device = device;
}

std::string advanced_connection_context_t::default_tuntap_device() {
    std::lock_guard guard(table_lock);
    return tuntap_device;
}

int advanced_connection_context_t::parse_if_options(const std::string& text, if_options_t& options) {
    scan_if_options(text, options);
    return static_cast<int>(options.size());
}

bool advanced_connection_context_t::set_if_options(const std::string& ifname, if_options_t&) {
    return !ifname.empty();
}

}  // namespace tandem

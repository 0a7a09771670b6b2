#include "platform/tndm/endpoint/path_spec.h"

#include <algorithm>
#include <set>

#include "platform/tndm/quic/control_message.h"

namespace tndm {

std::optional<path_spec> path_spec::parse(const std::string& text, std::string& error) {
    const auto fault = [&](const std::string& what) {
        error = "the path \"" + text.substr(0, text.find_first_of("\r\n")) + "\": " + what;
        return std::nullopt;
    };
    path_spec made{text, name_of(text)};
    if (made.name.empty() || text.size() > control::max_name ||
        std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; })) {
        return fault("give an interface or a local address, then its options; " + std::to_string(control::max_name) +
                     " bytes at most");
    }
    std::set<std::string> keys;
    for (size_t at = made.name.size(); at < text.size();) {
        const size_t end = std::min(text.find(';', at + 1), text.size());
        const std::string option = text.substr(at + 1, end - at - 1);
        const size_t colon = option.find(':');
        const std::string key = option.substr(0, colon);
        const std::string value = colon == std::string::npos ? "" : option.substr(colon + 1);
        if (key != "backup") {
            return fault("there is no option \"" + key + "\"; there is backup:yes");
        }
        if (value != "yes" && value != "no") {
            return fault("write backup:yes or backup:no");
        }
        if (!keys.insert(key).second) {
            return fault("the option " + key + " is given twice");
        }
        made.backup = value == "yes";
        at = end;
    }
    return made;
}

}  // namespace tndm

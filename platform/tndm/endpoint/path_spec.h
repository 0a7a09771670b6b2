// A path as the application names it: NAME, then options.
//
//   eth1    192.0.2.7    wwan0;backup:yes
//
// The name is an interface or a local address; it alone tells one path of an instance from another, and is what the
// peer and the statistics show. Options are `key:value`, each once:
//   backup:yes|no   used only while no path without it works (no, when nothing is said)
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_PATH_SPEC_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_PATH_SPEC_H

#include <optional>
#include <string>

namespace tndm {

struct path_spec {
    std::string text;  // as it was given
    std::string name;
    bool backup = false;

    // Nothing when the text is no path: `error` then says why in one line.
    static std::optional<path_spec> parse(const std::string& text, std::string& error);
    // The part of a path's text that is its name.
    static std::string name_of(const std::string& text) { return text.substr(0, text.find(';')); }
};

}  // namespace tndm

#endif

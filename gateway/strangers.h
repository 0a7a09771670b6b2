#ifndef TANDEM_GATEWAY_STRANGERS_H
#define TANDEM_GATEWAY_STRANGERS_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace tandem {

// Places for the connections that are not authorised (yet): so many in all, and so many of one source, so that nobody
// takes the places of the others. Loop's thread, the places too.
class strangers_t {
  public:
    strangers_t(uint64_t most, uint64_t most_of_source) : most_(most), most_of_source_(most_of_source) {}

    // Null when there is none. Given back when the last copy goes.
    std::shared_ptr<void> take_place(const std::string& source);

  private:
    struct taken_t {
        uint64_t all = 0;
        std::map<std::string, uint64_t> by_source;  // none is 0
    };

    const uint64_t most_;
    const uint64_t most_of_source_;
    std::shared_ptr<taken_t> taken_ = std::make_shared<taken_t>();
};

// What counts as one source: an IPv4 address, or the /64 of an IPv6 address, in which a host may have any. IPv6 forms
// of an IPv4 address are that address. What is no address is its own source.
std::string source_of(std::string address);

}  // namespace tandem

#endif  // TANDEM_GATEWAY_STRANGERS_H

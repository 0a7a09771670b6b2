// What peers write to each other, byte by byte.
#ifndef TANDEM_TESTS_FAKE_FRAMES_H
#define TANDEM_TESTS_FAKE_FRAMES_H

#include <gtest/gtest.h>

#include <cstdarg>
#include <functional>
#include <string>

#include "common/packet.h"
#include "common/varint.h"

namespace fake {

inline std::string frame(const std::string& body) {
    uint8_t header[8];
    const int length = t_varint_encode(header, sizeof(header), body.size());
    return std::string(reinterpret_cast<char*>(header), static_cast<size_t>(length)) + body;
}
inline std::string body_of(const tandem::packet_t& packet) {
    return packet.data() == nullptr ? "" : std::string(reinterpret_cast<const char*>(packet.data()), packet.size());
}

inline const std::string marker = "\x03\xA2TC";
// A stream that ends with nothing more to say.
inline const std::string end_of_stream(1, '\0');

// A message: its tag, then a map.
using value_t = tandem::message_variant_t;
using keys_t = std::vector<std::pair<value_t, value_t>>;
inline std::string message(const std::string& tag, const keys_t& keys) {
    tandem::packet_t packet(0);
    packet.pack_string(tag);
    packet.pack_map_raw(static_cast<int>(keys.size()));
    for (const auto& [key, value] : keys) {
        packet.pack_variant(key);
        packet.pack_variant(value);
    }
    return frame(body_of(packet));
}
inline std::string request(const std::string& type, const std::string& address, unsigned long long port) {
    return message("FWDR", {{"ta", address}, {"t", type}, {"tp", port}});
}

__attribute__((format(printf, 1, 2))) inline std::string text(const char* format, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof(buffer), format, arguments);
    va_end(arguments);
    return buffer;
}

// What the library says meanwhile.
inline std::string printed(const std::function<void()>& during) {
    testing::internal::CaptureStdout();
    during();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace fake

#endif  // TANDEM_TESTS_FAKE_FRAMES_H

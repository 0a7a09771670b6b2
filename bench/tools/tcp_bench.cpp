/* A fast TCP client and the server that it talks to, directly or through a tunnel, on one machine.
 *
 *   tcp_bench target                        serves; prints its port
 *   tcp_bench up|down PORT BYTES            one bulk transfer
 *   tcp_bench short PORT COUNT PARALLEL     connections that carry 1 KiB each way
 *
 * The last two print the seconds taken.
 */
#include <charconv>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/tools/protocol.h"

namespace {

constexpr uint64_t exchange_bytes = 1024;

template <class Number>
Number number(std::string_view text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value == 0) {
        throw std::runtime_error("not a number that fits: " + std::string(text));
    }
    return value;
}

double run(const std::vector<std::string_view>& arguments) {
    const std::string_view mode = arguments.empty() ? "" : arguments[0];
    if (mode == "target" && arguments.size() == 1) bench::serve();
    if ((mode == "up" || mode == "down") && arguments.size() == 3) {
        const auto direction = mode == "up" ? bench::request::upload : bench::request::download;
        return bench::transfer(number<uint16_t>(arguments[1]), direction, number<uint64_t>(arguments[2]));
    }
    if (mode == "short" && arguments.size() == 4) {
        return bench::exchange_many(number<uint16_t>(arguments[1]), number<unsigned>(arguments[2]),
                                    number<unsigned>(arguments[3]), exchange_bytes);
    }
    throw std::runtime_error("usage: tcp_bench target | up PORT BYTES | down PORT BYTES | short PORT COUNT PARALLEL");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::printf("%.6f\n", run({argv + 1, argv + argc}));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tcp_bench: %s\n", error.what());
        return 1;
    }
}

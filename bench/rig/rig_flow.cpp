/* TCP flows whose receiver watches the clock, and the server that they talk to.
 *
 *   rig_flow serve PORT [CONGESTION]                          CONGESTION: the kernel's name of a congestion control
 *   rig_flow down|up HOST PORT SECONDS                        bulk, towards or away from this program
 *   rig_flow objects HOST PORT SECONDS BYTES                  objects on one connection, each asked for after the last
 *   rig_flow exchange HOST PORT SECONDS BYTES INTERVAL_MS     messages that are answered, one at a time
 *
 * A client prints one JSON object. Times are seconds of CLOCK_MONOTONIC. Bulk: "start" (the first byte's arrival),
 * "bytes", "intact" (every byte was the right one, and the last one came), "bin_ms" and "bins" (bytes received in each
 * such time from the start on) and "gaps" ([arrival before it, length] of every pause longer than that). Others: the
 * "times" of all answers in milliseconds, and "at", when each was asked for.
 */
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/rig/flow_pattern.h"
#include "bench/rig/flow_socket.h"

namespace {

using flow::connection;

constexpr size_t block_bytes = 256 * 1024;
constexpr double bin_seconds = 0.02;

enum class kind : uint32_t { down, up, objects, exchange };

struct request {
    kind what;
    uint32_t milliseconds;
    uint32_t bytes;
};

double now() {
    timespec read{};
    ::clock_gettime(CLOCK_MONOTONIC, &read);
    return static_cast<double>(read.tv_sec) + static_cast<double>(read.tv_nsec) * 1e-9;
}

template <class... Values>
std::string text(const char* format, Values... values) {
    char filled[128];
    std::snprintf(filled, sizeof filled, format, values...);
    return filled;
}

std::string list(const std::vector<std::string>& items) {
    std::string joined = "[";
    for (const std::string& item : items)
        joined += (joined.size() > 1 ? "," : "") + item;
    return joined + "]";
}

void send_bulk(const connection& to, double seconds) {
    std::vector<uint64_t> block(block_bytes / sizeof(uint64_t));
    const double end = now() + seconds;
    uint64_t words = 0;
    while (now() < end) {
        for (uint64_t& word : block)
            word = flow::pattern_word(words++);
        to.send_all(block.data(), block_bytes);
    }
    const uint64_t last = flow::final_word(words);
    to.send_all(&last, sizeof last);
    to.end();
}

/* What a bulk receiver has seen. */
class trace {
  public:
    void note(double at, size_t bytes) {
        if (bytes_ == 0) start_ = last_ = at;
        if (at - last_ > bin_seconds) gaps_.push_back(text("[%.6f,%.6f]", last_, at - last_));
        const auto bin = static_cast<size_t>((at - start_) / bin_seconds);
        if (bins_.size() <= bin) bins_.resize(bin + 1);
        bins_[bin] += bytes;
        bytes_ += bytes;
        last_ = at;
    }
    std::string report(bool intact) const {
        std::vector<std::string> bins;
        for (const uint64_t each : bins_)
            bins.push_back(std::to_string(each));
        return text(R"({"start":%.6f,"bytes":%llu,"intact":%s,"bin_ms":%.0f,"bins":)", start_,
                    static_cast<unsigned long long>(bytes_), intact ? "true" : "false", bin_seconds * 1000) +
               list(bins) + ",\"gaps\":" + list(gaps_) + "}\n";
    }

  private:
    double start_ = 0;
    double last_ = 0;
    uint64_t bytes_ = 0;
    std::vector<uint64_t> bins_;
    std::vector<std::string> gaps_;
};

std::string receive_bulk(const connection& from) {
    std::vector<std::byte> block(block_bytes);
    trace seen;
    flow::pattern_check check;
    while (const size_t bytes = from.receive(block.data(), block.size())) {
        seen.note(now(), bytes);
        check.take({block.data(), bytes});
        if (check.broken()) throw std::runtime_error("the stream is corrupt");
    }
    return seen.report(check.whole());
}

void answer(connection& peer) {
    request wanted{};
    if (!peer.receive_all(&wanted, sizeof wanted)) return;
    if (wanted.what == kind::down) {
        send_bulk(peer, wanted.milliseconds / 1000.0);
    } else if (wanted.what == kind::up) {
        const std::string report = receive_bulk(peer);
        peer.send_all(report.data(), report.size());
    } else if (wanted.what == kind::objects || wanted.what == kind::exchange) {
        std::vector<char> asked(wanted.what == kind::objects ? 1 : wanted.bytes);
        const std::vector<char> object(wanted.bytes, 'x');
        while (peer.receive_all(asked.data(), asked.size()))
            peer.send_all(object.data(), object.size());
    } else {
        throw std::runtime_error("not a request");
    }
}

std::string upload(const connection& peer, double seconds) {
    send_bulk(peer, seconds);
    std::string report;
    char block[4096];
    while (const size_t bytes = peer.receive(block, sizeof block))
        report.append(block, bytes);
    if (report.empty()) throw std::runtime_error("the receiver did not report");
    return report;
}

std::string ask(const connection& peer, double seconds, size_t question_bytes, size_t answer_bytes, double interval) {
    const std::vector<char> question(question_bytes, 'q');
    std::vector<char> received(answer_bytes);
    std::vector<std::string> times;
    std::vector<std::string> starts;
    const double end = now() + seconds;
    for (double asked = now(); asked < end;) {
        peer.send_all(question.data(), question.size());
        if (!peer.receive_all(received.data(), received.size())) throw std::runtime_error("the peer ended");
        const double taken = now() - asked;
        times.push_back(text("%.3f", taken * 1000));
        starts.push_back(text("%.6f", asked));
        if (taken < interval) std::this_thread::sleep_for(std::chrono::duration<double>(interval - taken));
        asked = now();
    }
    return "{\"times\":" + list(times) + ",\"at\":" + list(starts) + "}\n";
}

template <class Number>
Number number(std::string_view word) {
    Number value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size() || !(value > 0)) {
        throw std::runtime_error("not a number that fits: " + std::string(word));
    }
    return value;
}

std::string run(const std::vector<std::string_view>& words) {
    const std::string_view mode = words.empty() ? "" : words[0];
    if (mode == "serve" && (words.size() == 2 || words.size() == 3)) {
        flow::serve(number<uint16_t>(words[1]), std::string(words.size() == 3 ? words[2] : ""), answer);
    }
    const bool bulk = (mode == "down" || mode == "up") && words.size() == 4;
    const bool objects = mode == "objects" && words.size() == 5;
    if (!bulk && !objects && (mode != "exchange" || words.size() != 6)) {
        throw std::runtime_error(
            "usage: serve PORT [CONGESTION] | down|up HOST PORT SECONDS | objects HOST PORT SECONDS BYTES | "
            "exchange HOST PORT SECONDS BYTES INTERVAL_MS");
    }
    const double seconds = number<double>(words[3]);
    const connection peer = connection::to(std::string(words[1]), number<uint16_t>(words[2]));
    request wanted{kind::down, static_cast<uint32_t>(seconds * 1000), 0};
    if (mode == "up") wanted.what = kind::up;
    if (!bulk) {
        wanted.what = objects ? kind::objects : kind::exchange;
        wanted.bytes = number<uint32_t>(words[4]);
    }
    peer.send_all(&wanted, sizeof wanted);
    if (mode == "down") return receive_bulk(peer);
    if (mode == "up") return upload(peer, seconds);
    if (objects) return ask(peer, seconds, 1, wanted.bytes, 0);
    return ask(peer, seconds, wanted.bytes, wanted.bytes, number<double>(words[5]) / 1000);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::fputs(run({argv + 1, argv + argc}).c_str(), stdout);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rig_flow: %s\n", error.what());
        return 1;
    }
}

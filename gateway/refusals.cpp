#include "gateway/refusals.h"

#include <cstdio>
#include <iterator>
#include <utility>

#include "gateway/clock.h"

namespace tandem {
namespace {

constexpr const char* names[] = {"target not allowed",    "too many streams",       "too many forwarded connections",
                                 "too many being opened", "too many a second",      "too much queued",
                                 "too many strangers",    "wrong protocol",         "wrong id or secret",
                                 "too many attempts",     "VPN interface refused:", "too many links"};
static_assert(std::size(names) == refusals_t::kinds);

std::string printable(std::string text) {
    constexpr size_t longest = 200;
    if (text.size() > longest) text.resize(longest);
    for (char& c : text) {
        if (c < ' ' || c > '~') c = '?';
    }
    return text;
}

}  // namespace

void refusals_t::count(why_t why, const std::string& who, const std::string& what) {
    constexpr int64_t between_lines_us = 1'000'000;
    const int64_t now = clock_us();
    uint64_t untold = 0;
    {
        const std::lock_guard lock(mutex_);
        ++counts_[why];
        ++untold_;
        if (told_us_ != 0 && now - told_us_ < between_lines_us) return;
        told_us_ = now;
        untold = std::exchange(untold_, 0);
    }
    std::printf("Gateway - refused %llu time(s), last %s: %s %s\n", static_cast<unsigned long long>(untold),
                printable(who).c_str(), names[why], printable(what).c_str());
}

std::array<uint64_t, refusals_t::kinds> refusals_t::counts() const {
    const std::lock_guard lock(mutex_);
    return counts_;
}

}  // namespace tandem

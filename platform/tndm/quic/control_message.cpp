#include "platform/tndm/quic/control_message.h"

#include <algorithm>
#include <utility>

namespace tndm::control {

namespace {

enum type : uint8_t { type_hello = 1, type_welcome, type_join, type_joined, type_ready, type_gone };

class writer {
  public:
    explicit writer(uint8_t type) : bytes_{0, 0, type} {}

    template <typename T>
    void number(T value) {
        for (size_t i = sizeof(T); i-- > 0;) {
            bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
        }
    }
    void raw(std::span<const uint8_t> value) { bytes_.insert(bytes_.end(), value.begin(), value.end()); }
    void name(const std::string& value) {
        const size_t size = std::min(value.size(), max_name);
        number(static_cast<uint8_t>(size));
        bytes_.insert(bytes_.end(), value.begin(), value.begin() + static_cast<ptrdiff_t>(size));
    }
    void limits(const granted& value) {
        number(value.streams);
        number(value.stream_window);
        number(value.connection_window);
    }
    std::vector<uint8_t> finish() {
        const size_t length = bytes_.size() - 2;
        bytes_[0] = static_cast<uint8_t>(length >> 8);
        bytes_[1] = static_cast<uint8_t>(length);
        return std::move(bytes_);
    }

  private:
    std::vector<uint8_t> bytes_;
};

class reader {
  public:
    explicit reader(std::span<const uint8_t> bytes) : rest_(bytes) {}

    std::span<const uint8_t> raw(size_t size) {
        if (size > rest_.size()) {
            failed_ = true;
            return {};
        }
        const auto taken = rest_.first(size);
        rest_ = rest_.subspan(size);
        return taken;
    }
    template <typename T>
    T number() {
        T value = 0;
        for (const uint8_t byte : raw(sizeof(T))) {
            value = static_cast<T>(static_cast<T>(value << 7 << 1) | byte);
        }
        return value;
    }
    template <size_t N>
    void fill(std::span<uint8_t, N> out) {
        const auto taken = raw(N);
        std::copy(taken.begin(), taken.end(), out.begin());
    }
    // A name is printed and compared, so it is text without control characters.
    std::string name() {
        const auto taken = raw(number<uint8_t>());
        if (taken.size() > max_name || std::any_of(taken.begin(), taken.end(), [](uint8_t c) { return c < 0x20; })) {
            failed_ = true;
        }
        return {taken.begin(), taken.end()};
    }
    // One of the values from 0 to `highest`.
    uint8_t choice(uint8_t highest) {
        const auto value = number<uint8_t>();
        failed_ = failed_ || value > highest;
        return value;
    }
    granted limits() {
        granted value;
        value.streams = number<uint32_t>();
        value.stream_window = number<uint64_t>();
        value.connection_window = number<uint64_t>();
        return value;
    }
    bool good() const { return !failed_ && rest_.empty(); }

  private:
    std::span<const uint8_t> rest_;
    bool failed_ = false;
};

std::vector<uint8_t> write(const hello& value) {
    writer out(type_hello);
    out.number(version);
    out.name(value.path);
    out.limits(value.limits);
    out.number(value.linger_seconds);
    out.number(value.lane);
    out.number(static_cast<uint8_t>(value.backup));
    out.number(static_cast<uint8_t>(value.schedule));
    return out.finish();
}

std::vector<uint8_t> write(const welcome& value) {
    writer out(type_welcome);
    out.raw(value.id);
    out.raw(value.join_secret.span());
    out.limits(value.limits);
    return out.finish();
}

std::vector<uint8_t> write(const join& value) {
    writer out(type_join);
    out.number(version);
    out.name(value.path);
    out.raw(value.id);
    out.raw(value.proof);
    out.number(value.lane);
    out.number(static_cast<uint8_t>(value.backup));
    return out.finish();
}

std::vector<uint8_t> write(const joined&) {
    return writer(type_joined).finish();
}

std::vector<uint8_t> write(const ready&) {
    return writer(type_ready).finish();
}

std::vector<uint8_t> write(const gone& value) {
    writer out(type_gone);
    out.number(value.lane);
    return out.finish();
}

std::optional<message> read(std::span<const uint8_t> bytes) {
    reader in(bytes);
    message made;
    switch (in.number<uint8_t>()) {
        case type_hello: {
            hello value;
            if (in.number<uint8_t>() != version) {
                return std::nullopt;
            }
            value.path = in.name();
            value.limits = in.limits();
            value.linger_seconds = in.number<uint32_t>();
            value.lane = in.number<uint32_t>();
            value.backup = in.choice(1) != 0;
            value.schedule = static_cast<policy>(in.choice(1));
            made = value;
            break;
        }
        case type_welcome: {
            welcome value;
            in.fill(std::span(value.id));
            in.fill(value.join_secret.span());
            value.limits = in.limits();
            made = value;
            break;
        }
        case type_join: {
            join value;
            if (in.number<uint8_t>() != version) {
                return std::nullopt;
            }
            value.path = in.name();
            in.fill(std::span(value.id));
            in.fill(std::span(value.proof));
            value.lane = in.number<uint32_t>();
            value.backup = in.choice(1) != 0;
            made = value;
            break;
        }
        case type_joined:
            made = joined{};
            break;
        case type_ready:
            made = ready{};
            break;
        case type_gone:
            made = gone{in.number<uint32_t>()};
            break;
        default:
            return std::nullopt;
    }
    return in.good() ? std::optional(made) : std::nullopt;
}

}  // namespace

std::vector<uint8_t> encode(const message& value) {
    return std::visit([](const auto& m) { return write(m); }, value);
}

bool decoder::push(std::span<const uint8_t> bytes) {
    if (bytes_.size() + bytes.size() > 4 * max_message) {
        failed_ = true;
    }
    if (!failed_) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    }
    return !failed_;
}

std::optional<message> decoder::next() {
    if (failed_ || bytes_.size() < 2) {
        return std::nullopt;
    }
    const size_t length = static_cast<size_t>(bytes_[0]) << 8 | bytes_[1];
    if (length == 0 || length > max_message) {
        failed_ = true;
        return std::nullopt;
    }
    if (bytes_.size() < 2 + length) {
        return std::nullopt;
    }
    auto found = read(std::span(bytes_).subspan(2, length));
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(2 + length));
    failed_ = !found;
    return found;
}

}  // namespace tndm::control

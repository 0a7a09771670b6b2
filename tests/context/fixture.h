// A link over the fake platform, on a loop driven by the test's own thread.
#ifndef TANDEM_TESTS_CONTEXT_FIXTURE_H
#define TANDEM_TESTS_CONTEXT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdarg>
#include <functional>

#include "context/default_connection_context.h"
#include "link/link.h"
#include "tests/fake/fake_platform.h"

// Frames, as a peer writes them.
inline std::string frame(const std::string& body) {
    EXPECT_LT(body.size(), 64u);
    return static_cast<char>(body.size()) + body;
}

inline const std::string marker = "\x03\xA2TC";

__attribute__((format(printf, 1, 2))) inline std::string text(const char* format, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof(buffer), format, arguments);
    va_end(arguments);
    return buffer;
}

inline std::string printed(const std::function<void()>& during) {
    testing::internal::CaptureStdout();
    during();
    return testing::internal::GetCapturedStdout();
}

// Opens what derived classes see, and writes down what is called.
class probe_t : public tandem::default_connection_context_t {
  public:
    probe_t() : default_connection_context_t("I", "C", "T", "M") {}

    using default_connection_context_t::alpn;
    using default_connection_context_t::closed;
    using default_connection_context_t::connection;
    using default_connection_context_t::control_stream_id;
    using default_connection_context_t::is_server;
    using default_connection_context_t::local_paths;
    using default_connection_context_t::max_frame_length;
    using default_connection_context_t::peer_paths;
    using default_connection_context_t::pending;
    using default_connection_context_t::status_interval;
    using default_connection_context_t::status_timer;
    using default_connection_context_t::writable_handler_;

    std::shared_ptr<tandem::packet_t> on_received_stream_packet(uint64_t stream_id,
                                                                std::shared_ptr<tandem::packet_t> packet, bool skip,
                                                                int fin, bool& handled) override {
        EXPECT_FALSE(handled);
        log.push_back(describe("stream", stream_id, *packet, skip, fin));
        return on_packet ? on_packet() : nullptr;
    }
    std::shared_ptr<tandem::packet_t> on_received_control_packet(uint64_t stream_id,
                                                                 std::shared_ptr<tandem::packet_t> packet, bool skip,
                                                                 int fin, bool& handled) override {
        if (log_control) log.push_back(describe("control", stream_id, *packet, skip, fin));
        auto reply = default_connection_context_t::on_received_control_packet(stream_id, packet, skip, fin, handled);
        was_handled = handled;
        return reply;
    }
    bool on_authorize(const std::string& i, const std::string& c, const std::string& t, const std::string& m,
                      int& out_code, std::string& out_message) override {
        log.push_back("authorize " + i + "," + c + "," + t + "," + m);
        out_code = code;
        out_message = message;
        return accept;
    }
    void on_authorize_acked(int result, const std::string& what) override {
        log.push_back("acked " + std::to_string(result) + " " + what);
    }
    void on_peer_path_updated(bool changed) override { log.push_back(changed ? "paths" : "no paths"); }
    void on_destroy() override { log.push_back("on_destroy"); }
    void internal_cleanup() override {
        log.push_back("internal_cleanup");
        default_connection_context_t::internal_cleanup();
    }
    void stop_status_timer() override {
        log.push_back("stop_status_timer");
        default_connection_context_t::stop_status_timer();
    }
    void on_transport_calculate(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e) override {
        log.push_back(text("statistics %d %d %d %d %d", static_cast<int>(a), static_cast<int>(b), static_cast<int>(c),
                           static_cast<int>(d), static_cast<int>(e)));
    }

    std::vector<std::string> take_log() { return std::exchange(log, {}); }

    std::vector<std::string> log;
    bool log_control = false;
    bool was_handled = false;
    std::function<std::shared_ptr<tandem::packet_t>()> on_packet;
    bool accept = true;
    int code = 0;
    std::string message;

  private:
    std::string describe(const char* kind, uint64_t stream_id, const tandem::packet_t& packet, bool skip,
                         int fin) const {
        const auto* data = reinterpret_cast<const char*>(packet.data());
        return text("%s %d [%.*s]%s%s +%u", kind, static_cast<int>(stream_id),
                    data != nullptr ? static_cast<int>(packet.size()) : 0, data != nullptr ? data : "",
                    skip ? " skip" : "", fin != 0 ? " fin" : "", delivery_remaining_);
    }
};

class linked : public testing::Test {
  protected:
    explicit linked(bool server = false) {
        fake::reset();
        options_.is_server = server ? 1 : 0;
        options_.server_host = "host";
        link_.register_connection_context_factory([this](void*, void*, const std::string& alpn) {
            factory_alpns_.push_back(alpn);
            probe_ = std::make_shared<probe_t>();
            return probe_;
        });
    }

    // Established, with both markers exchanged.
    void connect() {
        ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
        connection_ = fake::connect("tndm");
        fake::establish(connection_);
        peer_control_ = options_.is_server != 0 ? 0 : 1;
        fake::deliver(connection_, peer_control_, marker);
        probe_->take_log();
        fake::clear_calls();
    }

    tandem::options_t options_;
    fake::loop_t loop_;
    std::vector<std::string> factory_alpns_;
    std::shared_ptr<probe_t> probe_;
    tandem::link_t link_;
    fake::connection_t* connection_ = nullptr;
    uint64_t peer_control_ = 0;
};

#endif  // TANDEM_TESTS_CONTEXT_FIXTURE_H

// A link over the fake platform, on a loop driven by the test's own thread.
#ifndef TANDEM_TESTS_CONTEXT_FIXTURE_H
#define TANDEM_TESTS_CONTEXT_FIXTURE_H

#include "context/default_connection_context.h"
#include "link/link.h"
#include "tests/fake/fake_platform.h"
#include "tests/fake/frames.h"

using fake::end_of_stream;
using fake::frame;
using fake::marker;
using fake::text;
using strings = std::vector<std::string>;

inline const std::string acknowledged = frame(std::string("\xA4HSAK\x81\xA1r\0", 9));

// Opens what derived classes see, and writes down what is called.
class probe_t : public tandem::default_connection_context_t {
    using base = default_connection_context_t;
    using packet_ptr = std::shared_ptr<tandem::packet_t>;

  public:
    probe_t() : base("I", "C", "T", "M") {}

    using base::alpn;
    using base::connection;
    using base::control_stream_id;
    using base::is_server;
    using base::local_paths;
    using base::max_frame_length;
    using base::peer_paths;
    using base::pending;
    using base::status_interval;
    using base::writable_handler_;

    packet_ptr on_received_stream_packet(uint64_t stream_id, packet_ptr packet, bool skip, int fin,
                                         bool& handled) override {
        EXPECT_FALSE(handled);
        note("stream", stream_id, *packet, skip, fin);
        return on_packet ? on_packet() : nullptr;
    }
    packet_ptr on_received_control_packet(uint64_t stream_id, packet_ptr packet, bool skip, int fin,
                                          bool& handled) override {
        if (log_control) note("control", stream_id, *packet, skip, fin);
        auto reply = base::on_received_control_packet(stream_id, packet, skip, fin, handled);
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
        base::internal_cleanup();
    }
    void stop_status_timer() override {
        log.push_back("stop_status_timer");
        base::stop_status_timer();
    }
    void on_transport_calculate(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e) override {
        for (const uint64_t value : {a, b, c, d, e})
            log.push_back("statistics " + std::to_string(value));
    }

    strings take_log() { return std::exchange(log, {}); }

    strings log;
    bool log_control = false;
    bool was_handled = false;
    std::function<packet_ptr()> on_packet;
    bool accept = true;
    int code = 0;
    std::string message;

  private:
    void note(const char* kind, uint64_t stream_id, const tandem::packet_t& packet, bool skip, int fin) {
        log.push_back(std::string(kind) + " " + std::to_string(stream_id) + " [" + fake::body_of(packet) + "]" +
                      (skip ? " skip" : "") + (fin != 0 ? " fin" : "") + " +" + std::to_string(delivery_remaining_));
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
            return probe_ = std::make_shared<probe_t>();
        });
    }
    // Established on this side only.
    void establish() {
        ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
        connection_ = fake::connect("tndm");
        fake::establish(connection_);
    }
    // Established, with both markers exchanged.
    void connect() {
        establish();
        peer_control_ = options_.is_server != 0 ? 0 : 1;
        fake::deliver(connection_, peer_control_, marker);
        probe_->take_log();
        fake::clear_calls();
    }
    // Another link and its first connection.
    void start_over() {
        link_.destroy();
        fake::reset();
        connect();
    }
    void authorise() {
        connect();
        fake::deliver(connection_, 1, acknowledged);
        ASSERT_EQ(timers(), 1u);
        fake::clear_calls();
    }
    size_t timers() const { return loop_.count(fake::watcher_t::timer); }

    tandem::options_t options_;
    fake::loop_t loop_;
    strings factory_alpns_;
    std::shared_ptr<probe_t> probe_;
    tandem::link_t link_;
    fake::connection_t* connection_ = nullptr;
    uint64_t peer_control_ = 0;
};

#endif  // TANDEM_TESTS_CONTEXT_FIXTURE_H

// What a peer says on a connection's streams before and during the handshake, and its path reports: control messages
// into a context of either role, through the link's own callbacks.
#include <memory>

#include "common/varint.h"
#include "context/default_connection_context.h"
#include "fuzz/input.h"
#include "link/link.h"
#include "tests/fake/fake_platform.h"

namespace {

using fuzz::require;
using tandem::packet_t;

class context_t : public tandem::default_connection_context_t {
  public:
    context_t(bool accept, int code) : default_connection_context_t("i", "c", "t", "m"), accept_(accept), code_(code) {
        max_frame_length = 65536;
    }

    bool on_authorize(const std::string&, const std::string&, const std::string&, const std::string&, int& code,
                      std::string& message) override {
        code = code_;
        message = "so be it";
        asked_ = true;
        return accept_;
    }
    void on_authorize_acked(int code, const std::string&) override { asked_ = code == 0; }
    std::shared_ptr<packet_t> on_received_stream_packet(uint64_t, std::shared_ptr<packet_t> packet, bool skip, int,
                                                        bool&) override {
        require(packet != nullptr && (skip || packet->size() <= max_frame_length), "a packet has its bounds");
        return nullptr;
    }
    void check() {
        require(!is_authorized() || asked_, "nobody is authorised unasked");
        require(!link_ready() || is_authorized(), "an unauthorised link is not ready");
        require(peer_report(4).size() <= 4, "a report is cut to what was asked for");
    }

  private:
    const bool accept_;
    const int code_;
    bool asked_ = false;
};

class play {
  public:
    explicit play(fuzz::input& in) : in_(in) {
        const uint8_t how = in_.byte();
        options_.is_server = how & 1;
        options_.server_host = "host";
        link_.register_connection_context_factory([how](void*, void*, const std::string&) {
            return std::make_shared<context_t>((how & 2) == 0, (how >> 2) & 3);
        });
        require(link_.create(options_, loop_.handle()) == 0, "a link can be made");
        connect();
    }

    void run() {
        while (in_.more()) {
            step();
            loop_.fire_asyncs();
        }
    }

  private:
    void connect() {
        connection_ = fake::connect("tndm");
        fake::establish(connection_);
    }

    uint64_t stream() {
        const uint8_t which = in_.byte();
        return which < 128 ? options_.is_server != 0 ? 0 : 1 : which & 15;
    }

    void deliver(const std::string& bytes) {
        const uint64_t to = stream();
        if (!connection_->deleted) fake::deliver(connection_, to, bytes, in_.below(16) == 1);
    }

    static std::string frame(const std::string& body) {
        uint8_t header[8];
        const int length = t_varint_encode(header, sizeof(header), body.size());
        return std::string(reinterpret_cast<char*>(header), static_cast<size_t>(length)) + body;
    }

    void step() {
        switch (in_.below(9)) {
            case 0:
                deliver(in_.text());
                break;
            case 1:
                deliver(frame(in_.text()));
                break;
            case 2:
                deliver("\x03\xa2TC");
                break;
            case 3:
                deliver(frame("\xa4HSRQ" + in_.text()));
                break;
            case 4:
                deliver(frame("\xa4HSAK" + in_.text()));
                break;
            case 5:
                deliver(frame("\xa4PATH" + in_.text()));
                break;
            case 6:
                set_paths();
                loop_.fire_timers();
                break;
            case 7:
                if (in_.flag()) {
                    fake::fail("tndm_add_to_stream_ext", in_.byte() & 3);
                } else {
                    fake::heal("tndm_add_to_stream_ext");
                }
                break;
            default:
                if (!connection_->deleted) fake::disconnect(connection_);
                connect();
        }
    }

    void set_paths() {
        connection_->paths.clear();
        for (uint32_t i = in_.below(20); i > 0; --i) {
            st_tndm_path_info_t path{};
            const auto raw = in_.take(in_.byte());
            std::copy_n(raw.begin(), std::min(raw.size(), sizeof(path)), reinterpret_cast<uint8_t*>(&path));
            connection_->paths.push_back(path);
        }
    }

    fuzz::input& in_;
    tandem::options_t options_;
    fake::loop_t loop_;
    tandem::link_t link_;
    fake::connection_t* connection_ = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::be_quiet();
    fuzz::input in(data, size);
    play(in).run();
    fake::purge();
    return 0;
}

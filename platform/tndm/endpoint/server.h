// The server: one socket, many clients.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_SERVER_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_SERVER_H

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "platform/tndm/endpoint/engine.h"
#include "platform/tndm/endpoint/farewells.h"
#include "platform/tndm/quic/credentials.h"

namespace tndm {

class server : public engine {
  public:
    // `socket` stays the caller's and must outlive the server. Throws std::system_error when the loop cannot watch it.
    server(const environment& env, int socket, std::shared_ptr<const server_credentials> credentials, std::string alpn);
    ~server() override;

    void read_sockets(const pass& p) override;
    void close_all(const pass& p) override;
    void stop_watching() override { watcher_.reset(); }

  protected:
    void on_own_time(const pass& p) override;
    void on_time_of(connection& of, const pass& p) override;
    core::instant own_deadline() const override;
    void advance(const std::shared_ptr<carrier>& of, const pass& p) override;
    void retire(connection& over, close_code code, const pass& p) override;

  private:
    class lane;  // a carrier whose ids stand in `ids_`

    void readable();
    int receive(const pass& p);
    void on_datagram(const received_datagram& datagram, const pass& p);
    void on_unknown(const received_datagram& datagram, const ngtcp2_version_cid& ids, const pass& p);
    void accept(const received_datagram& datagram, const endpoint& local, const ngtcp2_pkt_hd& head, const pass& p);
    // What a token in a first packet tells; false when the packet is to be dropped or was answered.
    bool check_token(const endpoint& local, const endpoint& remote, const ngtcp2_pkt_hd& head,
                     subflow::first_packet& first, const pass& p);
    void send_retry(const endpoint& local, const endpoint& remote, const ngtcp2_pkt_hd& head, const pass& p);
    void send_version_negotiation(const endpoint& local, const endpoint& remote, const ngtcp2_version_cid& ids);
    void send_stateless_reset(const endpoint& local, const endpoint& remote, const ngtcp2_version_cid& ids,
                              size_t received, const pass& p);
    void answer(const endpoint& local, const endpoint& remote, std::span<const uint8_t> datagram);
    bool give_up_orphan();
    void on_hello(lane& of, const control::hello& hello, const pass& p);
    void on_gone(lane& by, const control::gone& gone, const pass& p);
    void on_join(lane& of, const control::join& join, const pass& p);
    void replace_dark_lane(connection& of, const std::string& path, const pass& p);
    void wait_for(lane& of, core::instant until);
    void settle(lane& of, const pass& p);
    void end(lane& of, close_code code, const pass& p);
    void part_with(lane& of, const pass& p);

    int socket_;
    uint16_t port_;
    endpoint bound_;
    std::shared_ptr<const server_credentials> credentials_;
    std::string alpn_;
    batch_sender sender_;
    std::unordered_map<std::string, lane*> ids_;  // connection id bytes -> carrier
    std::map<control::bundle_id, connection*> bundles_;
    size_t handshakes_ = 0;  // carriers that have not joined a bundle yet
    farewells farewells_;
    std::set<std::pair<core::instant, lane*>> impatience_;  // when those, and lanes not ready yet, are given up
    // Stateless resets are rationed, or two hosts could make us answer each other for ever.
    core::instant reset_window_{};
    unsigned resets_in_window_ = 0;
    std::unique_ptr<io_watcher> watcher_;
};

}  // namespace tndm

#endif

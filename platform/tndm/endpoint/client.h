// The client: one connection over many paths, made again for as long as the instance lives.
//
//   resting --(a path, the server's address)--> calling --(a handshake completes)--> greeting --(welcome)--> connected
//      ^                                           ^                                    |                        |
//      +------------- after a pause --------------+------- no answer, refused ---------+------ the end ---------+
//
// While calling, every path opens a subflow; the first whose handshake completes greets the server, the others join
// once there is a connection.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_CLIENT_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_CLIENT_H

#include <memory>
#include <string>
#include <vector>

#include "platform/tndm/endpoint/engine.h"
#include "platform/tndm/endpoint/link_table.h"
#include "platform/tndm/endpoint/network_watch.h"
#include "platform/tndm/endpoint/path_spec.h"
#include "platform/tndm/endpoint/resolver.h"
#include "platform/tndm/quic/credentials.h"

namespace tndm {

class client : public engine {
  public:
    struct target {
        std::string host;
        uint16_t port = 0;
        std::string alpn;
        std::chrono::seconds linger{10};
        std::shared_ptr<const client_credentials> credentials;
        control::policy schedule = control::policy::sooner_first;
    };
    client(const environment& env, target to);
    ~client() override;

    void read_sockets(const pass& p) override;
    void close_all(const pass& p) override;
    void stop_watching() override;

  protected:
    void apply_own(command& asked, const pass& p) override;
    void on_own_time(const pass& p) override;
    core::instant own_deadline() const override;
    void advance(const std::shared_ptr<carrier>& of, const pass& p) override;
    void advance_own(const pass& p) override;
    void retire(connection& over, close_code code, const pass& p) override;

  private:
    class lane;
    // One path that the application wants.
    struct path {
        path_spec named;
        std::shared_ptr<lane> current;
        std::shared_ptr<lane> fresh;  // opened beside a current one that has gone silent
        size_t turn = 0;              // which of the server's addresses is tried first; the next one after a failure
        std::chrono::milliseconds pause{0};
        core::instant next_try{};
        bool wanting = false;  // would open a subflow, were it not for `next_try`
        // What the last subflow that joined has measured; zero before.
        core::duration shortest_rtt{0};
        core::duration usual_rtt{0};
        unsigned tries = 0;                      // in vain since then
        core::instant restart_at = core::never;  // an unheard handshake begins again
        core::instant restarted_at{};
        core::duration between_restarts{0};
    };

    void readable(const std::shared_ptr<lane>& from);
    int receive(lane& from, const pass& p);

    // client_paths.cpp
    void add_path(const std::string& text, const pass& p);
    void remove_path(const std::string& name, const pass& p);
    const endpoint* server_for(const path& on) const;
    int make_socket(const path& on, const endpoint& to);
    std::shared_ptr<lane> open(path& on, const pass& p);
    void open_where_wanted(path& on, const pass& p);
    core::duration patience_for(const path& on) const;
    static std::chrono::milliseconds longer_pause(std::chrono::milliseconds pause);
    void failed(path& on, bool unanswered, const pass& p);
    void restart_unheard(path& on, const pass& p);
    void watch_network();
    void read_network(const pass& p);
    void on_change(const link_table::change& change, const pass& p);
    void lose_lanes(path& on, const link_table::change& why, const pass& p);
    void forget_network();
    void tell_paths();
    void give_back(path& on, lane& of);
    void on_welcome(lane& of, const control::welcome& welcome, const pass& p);
    void on_joined(lane& of, const pass& p);
    void add_lane(lane& of, const pass& p);
    bool has_joined_at(const endpoint& address) const;
    void on_end(lane& of, const pass& p);
    void greet(const pass& p);
    void join(lane& of, const pass& p);
    void abandon(const std::shared_ptr<lane>& of, close_code code, const pass& p);
    void tell_gone();
    void tell_problem(int problem, const std::string& text);
    path* path_of(const lane& of);
    path* path_named(const std::string& name);
    std::vector<path_book::wish> wishes() const;

    const target target_;
    resolver resolver_;
    std::vector<endpoint> servers_;    // its addresses, the best first; none while its name is looked up
    std::vector<endpoint> joined_at_;  // those where the connection is known
    std::vector<path> paths_;
    link_table links_;
    std::unique_ptr<network_watch> network_;
    bool network_tried_ = false;
    uint32_t next_lane_ = 1;
    std::vector<uint32_t> gone_lanes_;  // which the server must be told of
    connection* connection_ = nullptr;
    std::shared_ptr<lane> greeter_;
    core::instant connected_at_{};
    core::instant rest_until_{};
    std::chrono::milliseconds rest_{0};
};

}  // namespace tndm

#endif

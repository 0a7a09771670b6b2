#ifndef TANDEM_GATEWAY_GATEWAY_H
#define TANDEM_GATEWAY_GATEWAY_H

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gateway/doorkeeper.h"
#include "gateway/guarded_context.h"
#include "gateway/listening_forward.h"
#include "gateway/strangers.h"
#include "gateway/usage.h"

namespace tandem {

class gateway_context_t;

// What the connections of a gateway have in common: who may connect, where clients may go, how much they may have, and
// which listeners lead to which client. Lives on the link's loop; outlives the link. Loop's thread, but for `guard`.
class gateway_t {
  public:
    struct settings_t {
        limits_t limits;
        std::shared_ptr<const credentials_t> credentials;
        target_rules_t rules{target_rules_t::without_rules_t::allow};
        int64_t failure_delay_us = doorkeeper_t::failure_delay_us;
    };

    gateway_t(st_tloop_t* loop, settings_t settings);
    gateway_t(const gateway_t&) = delete;
    gateway_t& operator=(const gateway_t&) = delete;

    // Ends the connections of clients that these would not let in.
    void set_credentials(std::shared_ptr<const credentials_t> credentials);
    void set_rules(target_rules_t rules) { guard_.rules->set(std::move(rules)); }
    // What this listener accepts goes to the side of `client`, through its newest connection.
    void lend(const std::string& client, const listening_forward_t& forward) { lent_[client].push_back(forward); }

    const guarded_context_t::guard_t& guard() const { return guard_; }
    const limits_t& limits() const { return limits_; }
    st_tloop_t* loop() const { return loop_; }

    // --- for gateway_context_t ---
    doorkeeper_t& doorkeeper() { return doorkeeper_; }
    // Null when there are too many connections that are not authorised, here or of this source.
    std::shared_ptr<void> admit_stranger(const std::string& source);
    std::shared_ptr<usage_t> usage_of(const std::string& client);
    void attach(gateway_context_t& context);
    // From now on the context may have its client's listeners.
    void confirm(gateway_context_t& context);
    void detach(gateway_context_t& context);

  private:
    const std::vector<listening_forward_t>& lent_to(const std::string& client) const;

    st_tloop_t* loop_;
    const limits_t limits_;
    guarded_context_t::guard_t guard_;
    doorkeeper_t doorkeeper_;
    strangers_t strangers_;
    std::shared_ptr<usage_t> total_;
    std::map<std::string, std::weak_ptr<usage_t>> usages_;           // of who is connected, and few others
    std::map<std::string, std::list<gateway_context_t*>> contexts_;  // of each client, the newest first
    std::map<std::string, gateway_context_t*> borrowers_;            // who has the client's listeners
    std::map<std::string, std::vector<listening_forward_t>> lent_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_GATEWAY_H

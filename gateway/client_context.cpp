#include "gateway/client_context.h"

namespace tandem {

client_context_t::client_context_t(st_tloop_t* link_loop, const identity_t& identity,
                                   std::vector<listening_forward_t> to_forward, client_observer_t& observer,
                                   guard_t guard)
    : guarded_context_t(link_loop, identity.id, identity.credential, identity.software, identity.machine,
                        std::move(guard)),
      to_forward_(std::move(to_forward)),
      observer_(observer),
      deadline_(link_loop, answer_within_us, [this] { force_close(); }) {}

client_context_t::guard_t client_context_t::denying_guard() {
    return {std::make_shared<rule_book_t>(target_rules_t(target_rules_t::without_rules_t::deny)),
            std::make_shared<refusals_t>()};
}

void client_context_t::on_authorize_acked(int code, const std::string& message) {
    deadline_.cancel();
    if (code != 0) {
        observer_.on_refused(code, message);
        return;
    }
    const limits_t limits;
    let_in("the server", std::make_shared<usage_t>(limits.client), limits.frame_bytes);
    // Only a later turn of the loop watches the sockets, when the base has marked the connection as authorised.
    serve(to_forward_);
    observer_.on_authorized();
}

void client_context_t::on_destroy() {
    deadline_.cancel();
    advanced_connection_context_t::on_destroy();
    observer_.on_disconnected(is_authorized());
}

}  // namespace tandem

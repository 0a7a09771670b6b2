#include "gateway/gateway.h"

#include <algorithm>
#include <utility>

#include "gateway/gateway_context.h"

namespace tandem {

gateway_t::gateway_t(st_tloop_t* loop, settings_t settings)
    : loop_(loop),
      limits_(settings.limits),
      guard_{std::make_shared<rule_book_t>(std::move(settings.rules)), std::make_shared<refusals_t>()},
      doorkeeper_(loop, std::move(settings.credentials), settings.failure_delay_us),
      strangers_(limits_.strangers, limits_.source_strangers),
      total_(std::make_shared<usage_t>(limits_.total)) {}

void gateway_t::set_credentials(std::shared_ptr<const credentials_t> credentials) {
    doorkeeper_.set_credentials(std::move(credentials));
    for (const auto& [client, contexts] : contexts_) {
        for (gateway_context_t* context : contexts) {
            if (!doorkeeper_.credentials().still_holds(context->admission())) context->force_close();
        }
    }
}

std::shared_ptr<void> gateway_t::admit_stranger(const std::string& source) {
    auto place = strangers_.take_place(source);
    if (!place) guard_.refusals->count(refusals_t::strangers, source);
    return place;
}

std::shared_ptr<usage_t> gateway_t::usage_of(const std::string& client) {
    const auto known = usages_.find(client);
    std::shared_ptr<usage_t> usage = known == usages_.end() ? nullptr : known->second.lock();
    if (!usage) {
        std::erase_if(usages_, [](const auto& entry) { return entry.second.expired(); });
        usage = std::make_shared<usage_t>(limits_.client, total_);
        usages_[client] = usage;
    }
    return usage;
}

void gateway_t::attach(gateway_context_t& context) {
    contexts_[context.admission().client].push_front(&context);
}

void gateway_t::confirm(gateway_context_t& context) {
    const std::string& client = context.admission().client;
    gateway_context_t*& borrower = borrowers_[client];
    if (borrower != nullptr) borrower->drop_listeners(lent_to(client));
    borrower = &context;
    context.take_listeners(lent_to(client));
}

void gateway_t::detach(gateway_context_t& context) {
    const auto found = contexts_.find(context.admission().client);
    if (found == contexts_.end() || std::erase(found->second, &context) == 0) return;
    const auto& others = found->second;
    const auto borrower = borrowers_.find(found->first);
    if (borrower != borrowers_.end() && borrower->second == &context) {
        borrowers_.erase(borrower);
        const auto next = std::find_if(others.begin(), others.end(),
                                       [](const gateway_context_t* other) { return other->is_confirmed(); });
        if (next != others.end()) confirm(**next);
    }
    if (others.empty()) contexts_.erase(found);
}

const std::vector<listening_forward_t>& gateway_t::lent_to(const std::string& client) const {
    static const std::vector<listening_forward_t> none;
    const auto found = lent_.find(client);
    return found == lent_.end() ? none : found->second;
}

}  // namespace tandem

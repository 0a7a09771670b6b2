#include "gateway/doorkeeper.h"

#include <algorithm>
#include <utility>

#include "gateway/clock.h"

namespace tandem {
namespace {

verdict_t try_later() {
    return {std::nullopt, verdict_t::try_later, "too many attempts, try again later"};
}

}  // namespace

doorkeeper_t::doorkeeper_t(st_tloop_t* loop, std::shared_ptr<const credentials_t> credentials, int64_t failure_delay)
    : loop_(loop), credentials_(std::move(credentials)), failure_delay_(failure_delay), worker_(loop) {}

void doorkeeper_t::ask(presented_t client, const std::string& source, answer_t answer) {
    const int64_t now = clock_us();
    const auto wait = gate_.begin(source, now);
    if (!wait) return answer(try_later());
    const number_t number = next_++;
    attempts_.emplace(number, attempt_t{std::move(client), source, std::move(answer), now + *wait, nullptr});
    after(number, *wait, &doorkeeper_t::check);
}

void doorkeeper_t::check(number_t number) {
    attempt_t& attempt = attempts_.at(number);
    const bool taken =
        worker_.check(credentials_, std::move(attempt.client),
                      [this, number](std::optional<admission_t> admission) { checked(number, std::move(admission)); });
    if (taken) return;
    gate_.end(attempt.source, false, clock_us());
    finish(number, try_later());
}

void doorkeeper_t::checked(number_t number, std::optional<admission_t> admission) {
    const attempt_t& attempt = attempts_.at(number);
    // They may have changed during the check.
    if (admission && !credentials_->still_holds(*admission)) admission.reset();
    const int64_t now = clock_us();
    gate_.end(attempt.source, !admission, now);
    if (admission) return finish(number, {std::move(admission), 0, {}});
    after(number, std::max<int64_t>(attempt.checked_us + failure_delay_ - now, 0), &doorkeeper_t::refuse);
}

void doorkeeper_t::refuse(number_t number) {
    finish(number, {std::nullopt, verdict_t::wrong_credentials, "wrong id or secret"});
}

void doorkeeper_t::after(number_t number, int64_t delay_us, void (doorkeeper_t::*step)(number_t)) {
    if (delay_us <= 0) return (this->*step)(number);
    attempts_.at(number).timer = std::make_unique<deadline_t>(loop_, static_cast<uint64_t>(delay_us),
                                                              [this, number, step] { (this->*step)(number); });
}

void doorkeeper_t::finish(number_t number, const verdict_t& verdict) {
    auto node = attempts_.extract(number);
    node.mapped().answer(verdict);
}

}  // namespace tandem

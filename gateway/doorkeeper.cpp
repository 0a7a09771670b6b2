#include "gateway/doorkeeper.h"

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
    const number_t number = next_++;
    const int64_t now = clock_us();
    const attempt_t& attempt =
        attempts_.emplace(number, attempt_t{std::move(client), source, std::move(answer), now, nullptr}).first->second;
    if (!gate_.begin_first(source, attempt.client.id, now)) return check(number);
    const bool taken = hand_over(attempt, true, [this, number](std::optional<admission_t> admission) {
        checked_first(number, std::move(admission));
    });
    if (taken) return;
    gate_.end_first(source, attempt.client.id, false, now);
    check(number);
}

void doorkeeper_t::check(number_t number) {
    const attempt_t& attempt = attempts_.at(number);
    if (!gate_.begin(attempt.source, attempt.client.id, attempt.asked_us)) return answer_late(number, try_later());
    const bool taken = hand_over(attempt, false, [this, number](std::optional<admission_t> admission) {
        checked(number, std::move(admission));
    });
    if (taken) return;
    gate_.give_back(attempt.source);
    answer_late(number, try_later());
}

bool doorkeeper_t::hand_over(const attempt_t& attempt, bool first,
                             std::function<void(std::optional<admission_t>)> checked) {
    return worker_.check(credentials_, attempt.client, first,
                         [this, checked = std::move(checked)](std::optional<admission_t> admission) {
                             // They may have changed during the check.
                             if (admission && !credentials_->still_holds(*admission)) admission.reset();
                             checked(std::move(admission));
                         });
}

void doorkeeper_t::checked_first(number_t number, std::optional<admission_t> admission) {
    const attempt_t& attempt = attempts_.at(number);
    gate_.end_first(attempt.source, attempt.client.id, !admission, clock_us());
    if (admission) return finish(number, {std::move(admission), 0, {}});
    check(number);
}

void doorkeeper_t::checked(number_t number, std::optional<admission_t> admission) {
    const attempt_t& attempt = attempts_.at(number);
    gate_.end(attempt.source, attempt.client.id, !admission, clock_us());
    if (admission) return finish(number, {std::move(admission), 0, {}});
    answer_late(number, {std::nullopt, verdict_t::wrong_credentials, "wrong id or secret"});
}

void doorkeeper_t::answer_late(number_t number, const verdict_t& verdict) {
    attempt_t& attempt = attempts_.at(number);
    const int64_t delay_us = attempt.asked_us + failure_delay_ - clock_us();
    if (delay_us <= 0) return finish(number, verdict);
    attempt.timer = std::make_unique<deadline_t>(loop_, static_cast<uint64_t>(delay_us),
                                                 [this, number, verdict] { finish(number, verdict); });
}

void doorkeeper_t::finish(number_t number, const verdict_t& verdict) {
    auto node = attempts_.extract(number);
    node.mapped().answer(verdict);
}

}  // namespace tandem

#ifndef TANDEM_GATEWAY_DOORKEEPER_H
#define TANDEM_GATEWAY_DOORKEEPER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "gateway/attempt_gate.h"
#include "gateway/check_worker.h"
#include "gateway/credentials.h"
#include "gateway/deadline.h"
#include "link/tloop.h"

namespace tandem {

// What became of an attempt: an admission, or a code other than 0 and a reason for the client.
struct verdict_t {
    static constexpr int wrong_credentials = 1;
    static constexpr int try_later = 2;
    static constexpr int wrong_protocol = 3;

    std::optional<admission_t> admission;
    int code = 0;
    std::string reason;
};

// Takes the attempts to get in: slows down those from where wrong ones came, has them checked off the loop, and gives
// every wrong one the same answer at the same delay after it was made. Who was let in at the same source before is
// checked before all others; when that fails, it is an attempt as any other, checked once more, so that neither answer
// nor delay tells whether there is such a client. Loop's thread.
class doorkeeper_t {
  public:
    using answer_t = std::function<void(const verdict_t&)>;
    static constexpr int64_t failure_delay_us = 1'000'000;

    // `failure_delay`: from an attempt to the answer that it was wrong, in microseconds.
    doorkeeper_t(st_tloop_t* loop, std::shared_ptr<const credentials_t> credentials,
                 int64_t failure_delay = failure_delay_us);

    // Those of later attempts and of those that are under way.
    void set_credentials(std::shared_ptr<const credentials_t> credentials) { credentials_ = std::move(credentials); }
    const credentials_t& credentials() const { return *credentials_; }
    // `source` is where the client is; `answer` is called once, perhaps from inside the call, and not when the
    // doorkeeper is destroyed before. Attempts are kept until then: `answer` holds what bounds their number.
    void ask(presented_t client, const std::string& source, answer_t answer);

  private:
    struct attempt_t {
        presented_t client;
        std::string source;
        answer_t answer;
        int64_t asked_us = 0;
        std::unique_ptr<deadline_t> timer;
    };
    using number_t = uint64_t;

    void check(number_t number);
    bool hand_over(const attempt_t& attempt, bool first, std::function<void(std::optional<admission_t>)> checked);
    void checked_first(number_t number, std::optional<admission_t> admission);
    void checked(number_t number, std::optional<admission_t> admission);
    // When the time has come to tell a failure.
    void answer_late(number_t number, const verdict_t& verdict);
    void finish(number_t number, const verdict_t& verdict);

    st_tloop_t* loop_;
    std::shared_ptr<const credentials_t> credentials_;
    const int64_t failure_delay_;
    attempt_gate_t gate_;
    number_t next_ = 0;
    std::map<number_t, attempt_t> attempts_;
    check_worker_t worker_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_DOORKEEPER_H

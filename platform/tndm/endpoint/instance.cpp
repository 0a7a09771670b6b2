#include "platform/tndm/endpoint/instance.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/tndm/endpoint/client.h"
#include "platform/tndm/endpoint/path_spec.h"
#include "platform/tndm/endpoint/server.h"

namespace tndm {

namespace {

// Between these two any thread may touch what belongs to the loop's thread.
class loop_guard {
  public:
    explicit loop_guard(st_tloop_t* loop) : loop_(loop) { loop_->ops->enter(loop_); }
    ~loop_guard() { loop_->ops->leave(loop_); }
    loop_guard(const loop_guard&) = delete;
    loop_guard& operator=(const loop_guard&) = delete;

  private:
    st_tloop_t* loop_;
};

std::optional<ngtcp2_cc_algo> congestion_of(const char* name) {
    const std::string text = name == nullptr ? "" : name;
    if (text == "reno") {
        return NGTCP2_CC_ALGO_RENO;
    }
    if (text == "cubic") {
        return NGTCP2_CC_ALGO_CUBIC;
    }
    if (text == "bbr") {
        return NGTCP2_CC_ALGO_BBR2;  // which later versions of the library call bbr
    }
    if (text == "bbr1") {
        return NGTCP2_CC_ALGO_BBR;
    }
    return std::nullopt;
}

void complain(const std::string& error) {
    std::fprintf(stderr, "tndm: %s\n", error.c_str());
}

std::string text_of(const char* text) {
    return text == nullptr ? "" : text;
}

// A first stream window below this would stop the smallest handshake of the layers above; above, it could not be
// granted to every stream.
constexpr uint64_t smallest_window = 4096;
constexpr uint32_t default_linger_seconds = 10;

}  // namespace

std::shared_ptr<instance> instance::create(const st_tndm_instance_t& record, void* user) {
    const auto congestion = congestion_of(record.congestion_control);
    if (record.loop == nullptr || !congestion) {
        if (!congestion) {
            complain("unknown congestion control \"" + text_of(record.congestion_control) +
                     "\": use reno, cubic, bbr or bbr1");
        }
        return nullptr;
    }
    try {
        std::shared_ptr<instance> made(new instance(record, *congestion, user));
        const loop_guard guard(made->loop_);
        made->timer_ = std::make_unique<wake_timer>(made->loop_, [self = made.get()] { self->on_timer(); });
        const auto fired = [](st_tloop_t*, void*, void* of) { static_cast<instance*>(of)->on_async(); };
        made->async_ = made->loop_->ops->async_create(made->loop_, fired, made.get());
        if (made->async_ == nullptr) {
            return nullptr;
        }
        made->loop_->ops->async_start(made->loop_, made->async_);
        made->commands_->open(made->loop_, made->async_);
        return made;
    } catch (const std::exception& error) {
        complain(error.what());
        return nullptr;
    }
}

instance::instance(const st_tndm_instance_t& record, ngtcp2_cc_algo congestion, void* user)
    : loop_(record.loop), user_(user), buffer_(subflow::batch_capacity) {
    quic_.congestion = congestion;
    quic_.trace = record.flag;
    quic_.first_payload = record.param_c == 0 ? quic_.first_payload : std::max<size_t>(record.param_c, 512);
    own_.streams = record.param_a;
    own_.stream_window = std::max<uint64_t>(record.param_b, smallest_window);
    own_.stream_window_max = std::max(own_.stream_window_max, own_.stream_window);
    own_.connection_window = std::max(own_.connection_window, 2 * own_.stream_window);
    own_.connection_window_max = std::max(own_.connection_window_max, own_.connection_window);
}

instance::~instance() {
    destroy();
}

bool instance::is_client() const {
    const std::lock_guard lock(mutex_);
    return client_;
}

environment instance::make_environment() {
    return {loop_, *this, app_, commands_, receiver_, quic_, own_, dead_};
}

// --- start ---

int instance::start_client(const std::string& host, uint16_t port, const st_tndm_client_t& record) {
    std::string trust_text(record.text, strnlen(record.text, sizeof record.text));
    std::string error;
    client::target to{host, port, text_of(record.alpn),
                      std::chrono::seconds(record.param == 0 ? default_linger_seconds : record.param),
                      client_credentials::load(trust_text, host, error)};
    if (to.credentials == nullptr) {
        complain(error);
        return -1;
    }
    if (host.empty() || record.create_path == nullptr) {
        complain("a client needs a server's name or address, and a callback that makes sockets");
        return -1;
    }
    {
        const std::lock_guard lock(mutex_);
        if (started_ || destroyed_) {
            return -1;
        }
        started_ = client_ = true;
        to.schedule = schedule_;
    }
    const loop_guard guard(loop_);
    app_.on_established = record.on_established;
    app_.on_disconnected = record.on_disconnected;
    app_.on_data = record.on_data;
    app_.create_path = record.create_path;
    app_.path_broken = record.path_broken;
    app_.statistics = record.statistics;
    app_.statistics_interval = std::chrono::milliseconds(record.calculate_param);
    start(std::make_unique<client>(make_environment(), std::move(to)));
    return 0;
}

int instance::start_server(int socket, const st_tndm_server_t& record) {
    std::string error;
    auto credentials = server_credentials::load(text_of(record.cert), text_of(record.key), error);
    if (credentials == nullptr) {
        complain(error);
        return -1;
    }
    {
        const std::lock_guard lock(mutex_);
        if (started_ || destroyed_) {
            return -1;
        }
        started_ = true;
    }
    const loop_guard guard(loop_);
    app_.on_established = record.on_established;
    app_.on_disconnected = record.on_disconnected;
    app_.on_data = record.on_data;
    try {
        start(std::make_unique<server>(make_environment(), socket, std::move(credentials), text_of(record.alpn)));
    } catch (const std::exception& failure) {
        complain(failure.what());
        const std::lock_guard lock(mutex_);
        started_ = false;
        return -1;
    }
    return 0;
}

void instance::start(std::unique_ptr<engine> made) {
    engine_ = std::move(made);
    commands_->wake();
}

// --- asked from any thread ---

// One name is one path: the same name with other options is refused until the first is removed.
int instance::add_path(const std::string& text) {
    std::string error;
    const auto path = path_spec::parse(text, error);
    if (!path) {
        complain(error);
        return -1;
    }
    {
        const std::lock_guard lock(mutex_);
        const bool is_server = started_ && !client_;
        if (destroyed_ || is_server) {
            return -1;
        }
        if (!paths_.emplace(path->name, text).second) {
            complain("the path \"" + path->name + "\" is there already; remove it first to change its options");
            return -1;
        }
        // Under the lock, so that the engine hears of one name in the order of the map.
        return commands_->post({.what = command::kind::add_path, .text = text}) ? 0 : -1;
    }
}

int instance::remove_path(const std::string& text) {
    const std::string name = path_spec::name_of(text);
    {
        const std::lock_guard lock(mutex_);
        const auto found = paths_.find(name);
        if (destroyed_ || found == paths_.end() || (text != name && text != found->second)) {
            return -1;
        }
        paths_.erase(found);
        return commands_->post({.what = command::kind::remove_path, .text = name}) ? 0 : -1;
    }
}

int instance::set_schedule(const std::string& name) {
    const std::lock_guard lock(mutex_);
    if (started_ || destroyed_ || (name != "default" && name != "redundant")) {
        return -1;
    }
    schedule_ = name == "redundant" ? control::policy::redundant : control::policy::sooner_first;
    return 0;
}

int instance::set_writable_callback(tndm_writable_cb callback) {
    const loop_guard guard(loop_);
    app_.on_writable = callback;
    return 0;
}

int instance::set_problem_callback(tndm_problem_cb callback) {
    const loop_guard guard(loop_);
    app_.on_problem = callback;
    return 0;
}

// --- passes ---

pass instance::begin() {
    ++depth_;
    return {monotonic_now(), buffer_};
}

bool instance::finish(const pass& p) {
    const auto self = shared_from_this();  // a callback may destroy the instance
    apply_commands(p);
    // Answers to what was just delivered go out in the same pass; a peer that never stops must not keep the loop for
    // ever.
    constexpr int rounds = 8;
    bool more = engine_ != nullptr;
    for (int i = 0; more && i < rounds && !dead_; ++i) {
        more = engine_->run(p);
        apply_commands(p);
    }
    --depth_;
    if (dead_) {
        return false;
    }
    if (more) {
        commands_->wake();
    }
    if (engine_ != nullptr) {
        timer_->arm(engine_->deadline());
    }
    return true;
}

void instance::apply_commands(const pass& p) {
    if (engine_ == nullptr || dead_) {
        return;  // they stay in the mailbox until the instance is started
    }
    std::vector<command> asked = std::exchange(scratch_, {});
    commands_->drain(asked);
    for (command& each : asked) {
        engine_->apply(each, p);
    }
    asked.clear();
    scratch_ = std::move(asked);
}

void instance::on_async() {
    finish(begin());
}

void instance::on_timer() {
    const pass p = begin();
    if (engine_ != nullptr) {
        engine_->read_sockets(p);
        engine_->on_time(p);
    }
    finish(p);
}

void instance::refresh_paths(void* connection_handle) {
    if (engine_ != nullptr && !dead_) {
        engine_->refresh_paths(connection_handle);
    }
}

// --- the end ---

void instance::destroy() {
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(destroyed_, true)) {
            return;
        }
    }
    const loop_guard guard(loop_);
    dead_ = true;
    if (engine_ != nullptr) {
        engine_->close_all({monotonic_now(), buffer_});
        engine_->stop_watching();
    }
    timer_.reset();
    commands_->close();
    if (async_ != nullptr) {
        loop_->ops->async_destroy(loop_, async_);
        async_ = nullptr;
    }
    if (depth_ == 0) {
        engine_.reset();
    }
}

}  // namespace tndm

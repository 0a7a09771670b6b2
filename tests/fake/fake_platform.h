// A platform without threads, sockets or time, for tests that are about order, bytes and messages: everything that
// link/tloop.h and link/tndm.h declare, driven by hand.
//
//   fake::reset();                                   before each test
//   fake::loop_t loop;                               a caller's loop, whose thread is the one that made it
//   link.create(options, loop.handle());
//   fake::connection_t* c = fake::connect("tndm");   on the newest instance; fake::establish(c) tells the link
//   fake::deliver(c, 1, bytes);                      what the peer sends
//   fake::sent(c, 0), fake::calls()                  what the code under test did
//
// All of it may be used from several threads; callbacks run on the thread that fires them, without a lock but the
// loop's.
#ifndef TANDEM_TESTS_FAKE_PLATFORM_H
#define TANDEM_TESTS_FAKE_PLATFORM_H

#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "link/tloop.h"
#include "link/tndm.h"

namespace fake {

struct watcher_t {
    enum kind_t { io, timer, async } kind;
    void* user = nullptr;
    bool started = false;
    bool sent = false;  // async: not dispatched yet
    int fd = -1;
    int events = 0;
    uint64_t delay = 0;   // microseconds
    uint64_t period = 0;  // microseconds
    tloop_io_cb on_io = nullptr;
    tloop_timer_cb on_timer = nullptr;
    tloop_async_cb on_async = nullptr;
};

// `run` dispatches sent asyncs until the loop is broken; timers and descriptors are fired by hand.
class loop_t : public st_tloop_t {
  public:
    loop_t();
    loop_t(const loop_t&) = delete;
    loop_t& operator=(const loop_t&) = delete;

    st_tloop_t* handle() { return this; }
    // As from one of the loop's callbacks: with its lock.
    template <typename action_t>
    auto hold(action_t action) {
        const std::lock_guard lock(section_);
        return action();
    }

    // Each returns how many callbacks ran. Call them on the loop's thread.
    int fire_timers();
    int fire_asyncs();
    int fire_io(int fd, en_tloop_io_event_t event);
    // Waits for the descriptors of the started watchers, at most `timeout_ms`, and fires those that are ready.
    int poll_io(int timeout_ms);

    // Watchers that exist, to see whether any is left behind.
    size_t count(watcher_t::kind_t kind) const { return watchers(kind).size(); }
    std::vector<watcher_t> watchers(watcher_t::kind_t kind) const;
    bool broken() const { return broken_; }

  private:
    friend struct loop_ops;

    watcher_t* find(void* handle);
    template <typename match_t, typename call_t>
    int fire(match_t match, call_t call);

    mutable std::recursive_mutex section_;  // enter and leave; guards all below
    std::condition_variable_any changed_;
    std::list<watcher_t> watchers_;
    bool broken_ = false;
    std::thread::id thread_;
};

struct stream_t {
    std::string bytes;  // everything queued
    bool fin = false;
    uint64_t backlog = 0;
    bool writable_requested = false;
    uint64_t low_water = 0;
    bool paused = false;
};

struct instance_t {
    bool alive = true;
    bool is_client = false;
    void* user_data = nullptr;
    st_tndm_instance_t record = {};
    st_tndm_server_t server = {};
    st_tndm_client_t client = {};
    tndm_writable_cb on_writable = nullptr;
    tndm_problem_cb on_problem = nullptr;
};

struct connection_t {
    instance_t* instance = nullptr;
    std::string alpn;
    bool deleted = false;  // or disconnected
    int deletions = 0;
    uint64_t next_stream = 0;
    std::map<uint64_t, stream_t> streams;
    uint64_t bytes_queued = 0;
    uint64_t data_sent = 0;
    std::vector<st_tndm_path_info_t> paths;
    std::string peer_address = "192.0.2.1";
};

// Forgets everything. Handles from before become dead, not dangling.
void reset();
// The same, and gives the memory back: handles from before dangle. For programs that go on for hours.
void purge();

// The calls of tndm_* and tloop_create in their order, as "create_instance", "add_to_stream 0 1 fin=0", "add_path
// eth0", ...; look at the functions' definitions for the texts.
std::vector<std::string> calls();
int count_calls(const std::string& beginning);
void clear_calls();

// Makes a function ("tndm_add_to_stream", "tloop_create", ...) fail, from its `after`th call on (0: the next).
void fail(const std::string& function, int after = 0);
void heal(const std::string& function);

// The newest instance, and the newest loop of tloop_create that lives (null: none).
instance_t* instance();
loop_t* made_loop();
// Returns when every loop of tloop_create has been freed.
void wait_for_made_loops();
// An instance without a link.
instance_t* make_instance(bool is_client);

connection_t* connect(const std::string& alpn, instance_t* on = nullptr);
void establish(connection_t* connection);
void disconnect(connection_t* connection);
void deliver(connection_t* connection, uint64_t stream_id, const std::string& bytes, bool fin = false);
void fire_writable(connection_t* connection, uint64_t stream_id);

// A snapshot of a stream of this side, and of its bytes alone.
stream_t stream(connection_t* connection, uint64_t stream_id);
std::string sent(connection_t* connection, uint64_t stream_id);
void set_backlog(connection_t* connection, uint64_t stream_id, uint64_t bytes);

// The loops of tloop_create.
st_tloop_t* add_made_loop();

}  // namespace fake

#endif  // TANDEM_TESTS_FAKE_PLATFORM_H

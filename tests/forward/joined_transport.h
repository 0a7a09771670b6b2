// A transport in memory that joins two contexts: what one queues is delivered to the other on that one's own thread, in
// pieces of random sizes, streams in random order. It knows backlogs, writable notices and paused streams.
#ifndef TANDEM_TESTS_FORWARD_JOINED_TRANSPORT_H
#define TANDEM_TESTS_FORWARD_JOINED_TRANSPORT_H

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "context/connection_context.h"

namespace joined {

struct stream_t {
    std::string queued;
    bool fin = false;
    bool paused = false;  // by the receiver
    bool wants_notice = false;
    uint64_t low_water = 0;
};

// One side. Its address is the handle of its instance and of its connection.
struct end_t {
    std::shared_ptr<tandem::connection_context_t> context;
    end_t* peer = nullptr;
    bool is_client = false;
    uint64_t next_stream = 0;
    std::map<uint64_t, stream_t> streams;  // what this side sends
    std::vector<uint64_t> notices;         // streams that have become writable
    uint64_t queued_bytes = 0;
    uint64_t sent_bytes = 0;
    std::thread thread;
};

class link_t {
  public:
    // Binds both contexts, marks their control streams and starts delivering.
    link_t(std::shared_ptr<tandem::connection_context_t> client, std::shared_ptr<tandem::connection_context_t> server,
           unsigned seed);
    // Disconnects.
    ~link_t();
    // Lets go of the contexts, on the calling thread; with `tell` as at a disconnection.
    void disconnect(bool tell = true);

    end_t& client() { return client_; }
    end_t& server() { return server_; }
    // The most that was ever queued on one stream.
    static uint64_t longest_queue();

  private:
    void run(end_t& end, unsigned seed);

    end_t client_;
    end_t server_;
    bool stop_ = false;
};

}  // namespace joined

#endif  // TANDEM_TESTS_FORWARD_JOINED_TRANSPORT_H

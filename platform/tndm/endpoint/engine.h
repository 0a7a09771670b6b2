// What a client and a server have in common: connections, carriers, deadlines, and the order of a pass.
//
// A pass begins with one input (datagrams, a deadline, commands) and ends with the timer armed:
//   1. input      carriers and connections are touched
//   2. advance    handshakes, joins, endings: the client's and the server's own part
//   3. serve      callbacks of the touched connections, then what they want to send
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_ENGINE_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_ENGINE_H

#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/tndm/endpoint/carrier.h"
#include "platform/tndm/endpoint/connection.h"
#include "platform/tndm/endpoint/deadline_set.h"
#include "platform/tndm/endpoint/mailbox.h"
#include "platform/tndm/endpoint/reactor.h"
#include "platform/tndm/udp/batch_receiver.h"

namespace tndm {

// Whoever drives the engine: begins a pass, and finishes it once the engine has taken its input.
struct driver {
    virtual ~driver() = default;
    virtual pass begin() = 0;
    // False when the instance has been destroyed meanwhile: the engine is then gone, or about to go.
    virtual bool finish(const pass& p) = 0;
};

// What an engine works with; everything outlives it.
struct environment {
    st_tloop_t* loop;
    driver& drive;
    const application& app;
    std::shared_ptr<mailbox> commands;
    batch_receiver& receiver;
    subflow_settings quic;
    core::limits own;
    const bool& dead;  // the instance is being destroyed: no callback any more
};

class engine {
  public:
    explicit engine(const environment& env) : env_(env) {}
    virtual ~engine() = default;
    engine(const engine&) = delete;
    engine& operator=(const engine&) = delete;

    // --- driven by the instance ---
    void apply(command& asked, const pass& p);
    // Reads what has arrived meanwhile, so that a busy process does not take its own delay for a peer's silence.
    virtual void read_sockets(const pass& p) = 0;
    void on_time(const pass& p);
    // Steps 2 and 3. True when there is more to do at once.
    bool run(const pass& p);
    core::instant deadline() const;
    // The application is leaving: says goodbye on every carrier.
    virtual void close_all(const pass& p) = 0;
    // Stops watching sockets; nothing is called back afterwards.
    virtual void stop_watching() = 0;
    // Brings the ledger's view of the paths up to date.
    void refresh_paths(void* connection_handle);
    // For whoever looks on; null for an unknown handle.
    const connection* find(void* connection_handle) const {
        const auto found = connections_.find(connection_handle);
        return found == connections_.end() ? nullptr : found->second.get();
    }

  protected:
    virtual void apply_own(command&, const pass&) {}
    virtual void on_own_time(const pass&) {}
    // A deadline of the connection has come; its carriers may be dropped.
    virtual void on_time_of(connection&, const pass&) {}
    virtual core::instant own_deadline() const { return core::never; }
    // The carrier's handshake, messages or end need looking at.
    virtual void advance(const std::shared_ptr<carrier>& of, const pass& p) = 0;
    // After all of those.
    virtual void advance_own(const pass&) {}
    // The connection is over and has been told so: its carriers go.
    virtual void retire(connection& over, close_code code, const pass& p) = 0;

    // To be called by the derived class's destructor, while what its carriers refer to still lives.
    void clear();
    connection& establish(std::unique_ptr<connection> made);
    void touch(carrier& lane);
    void touch(connection& of);
    void track(std::shared_ptr<carrier> made);
    // Takes the carrier out of its connection and of all lists.
    void drop(carrier& lane, const pass& p);
    const std::unordered_map<carrier*, std::shared_ptr<carrier>>& carriers() const { return carriers_; }
    const std::unordered_map<void*, std::unique_ptr<connection>>& connections() const { return connections_; }

    const environment env_;

  private:
    void serve(const pass& p);
    void flush(connection& of, const pass& p);
    void reschedule(carrier& lane) { carrier_deadlines_.set(lane, lane.flow().deadline()); }

    std::unordered_map<void*, std::unique_ptr<connection>> connections_;
    std::unordered_map<carrier*, std::shared_ptr<carrier>> carriers_;
    deadline_set<carrier> carrier_deadlines_;
    deadline_set<connection> connection_deadlines_;
    std::vector<std::shared_ptr<carrier>> touched_carriers_;
    std::vector<void*> touched_connections_;  // handles: a connection may go while it waits here
};

}  // namespace tndm

#endif

// A subflow with the socket that it leaves by and the connection that it belongs to.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_CARRIER_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_CARRIER_H

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/tndm/quic/subflow.h"
#include "platform/tndm/udp/batch_sender.h"

namespace tndm {

class connection;

// Memory and time of one pass, lent to whoever writes packets.
struct pass {
    core::instant now;
    std::span<uint8_t> buffer;  // subflow::batch_capacity bytes
};

class carrier {
  public:
    // `sender` and `fd` outlive the carrier; `many_addresses` says that the socket is bound to none, so that each
    // packet must name the address that it leaves from.
    carrier(std::string path, int fd, batch_sender& sender, bool many_addresses)
        : path_(std::move(path)), fd_(fd), sender_(sender), many_addresses_(many_addresses) {}
    virtual ~carrier() = default;
    carrier(const carrier&) = delete;
    carrier& operator=(const carrier&) = delete;

    bool has_flow() const { return flow_ != nullptr; }
    subflow& flow() { return *flow_; }
    const subflow& flow() const { return *flow_; }
    void set_flow(std::unique_ptr<subflow> flow) { flow_ = std::move(flow); }

    void flush(const pass& p) { flow_->flush(p.now, p.buffer, sink()); }
    void close(close_code code, const pass& p) { flow_->close(code, p.now, p.buffer, sink()); }
    // The socket has failed for good.
    bool broken() const { return broken_; }

    const std::string& path() const { return path_; }
    // Without the options behind it, as both ends know it.
    std::string_view name() const { return std::string_view(path_).substr(0, path_.find(';')); }
    void set_path(std::string path) { path_ = std::move(path); }
    connection* joined() const { return joined_; }
    void set_joined(connection* to) { joined_ = to; }

    core::instant scheduled = core::never;  // of deadline_set
    bool touched = false;                   // stands in the owner's list of carriers to look at

  private:
    batch_sink sink();

    std::string path_;
    int fd_;
    batch_sender& sender_;
    bool many_addresses_;
    bool broken_ = false;
    std::unique_ptr<subflow> flow_;
    connection* joined_ = nullptr;
};

}  // namespace tndm

#endif

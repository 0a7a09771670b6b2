#ifndef TANDEM_GATEWAY_END_OF_STREAM_H
#define TANDEM_GATEWAY_END_OF_STREAM_H

#include <memory>

#include "common/packet.h"

namespace tandem {

// The reply that ends this side of the stream it answers.
inline std::shared_ptr<packet_t> end_of_stream() {
    auto packet = std::make_shared<packet_t>(0);
    packet->fin = 1;
    return packet;
}

}  // namespace tandem

#endif  // TANDEM_GATEWAY_END_OF_STREAM_H

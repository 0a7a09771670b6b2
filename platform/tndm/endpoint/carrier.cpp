#include "platform/tndm/endpoint/carrier.h"

namespace tndm {

batch_sink carrier::sink() {
    return [this](const outgoing_batch& batch) {
        const endpoint* source = many_addresses_ && !batch.local.is_wildcard() ? &batch.local : nullptr;
        const send_result result = sender_.send(fd_, batch.remote, source, batch.data, batch.segment_size, batch.ecn);
        if (result.status == send_status::broken) {
            broken_ = true;
        }
        // A full socket buffer means that the device is behind: what did not fit is lost, which is what the congestion
        // control must hear.
        return result.status == send_status::sent || result.status == send_status::dropped;
    };
}

}  // namespace tndm

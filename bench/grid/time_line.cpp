#include "bench/grid/time_line.h"

#include <string>

#include "platform/tndm/endpoint/instance.h"
#include "platform/tndm/endpoint/registry.h"

namespace grid {

namespace {

const tndm::connection* find(connection_end end) {
    if (end.connection == nullptr) {
        return nullptr;
    }
    const auto instance = tndm::registry<tndm::instance>::of_process().find(end.instance);
    return instance == nullptr ? nullptr : instance->find_connection(end.connection);
}

double milliseconds(duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

void print_lane(FILE* out, const world& of, const tndm::connection& sender, const tndm::carrier& carrier) {
    const tndm::core::lane* lane = sender.lane_of(carrier);
    if (lane == nullptr) {
        return;
    }
    const ngtcp2_conn_stat stat = carrier.flow().statistics();
    const size_t path = carrier.path().empty() ? 0 : static_cast<size_t>(carrier.path()[0] - 'a');
    const rig::pipe& wire = of.towards_client(path);
    std::fprintf(
        out,
        "    %s%s cwnd %6lu kB, in flight %6lu kB, rtt %6.1f ms (least %.1f), rate %7.3f Mbit/s, sent %7lu kB, "
        "resent or copied %6lu kB, lost %5lu; queue %5lu kB, dropped %lu, lost %lu\n",
        carrier.path().c_str(), lane->suspect() ? " SILENT" : "", stat.cwnd / 1000, stat.bytes_in_flight / 1000,
        milliseconds(lane->rtt()), static_cast<double>(stat.min_rtt) * 1e-6,
        static_cast<double>(stat.delivery_rate_sec) * 8e-6, carrier.flow().traffic().bytes_sent / 1000,
        lane->counters().bytes_resent / 1000, lane->counters().datagrams_lost, wire.queued_bytes() / 1000,
        wire.counted().dropped, wire.counted().lost);
}

}  // namespace

void print_time_line(FILE* out, const world& of, duration at, uint64_t delivered, connection_end receiver,
                     connection_end sender) {
    const tndm::connection* to = find(receiver);
    const tndm::connection* from = find(sender);
    std::fprintf(out, "%9.1f ms: received %lu kB, waiting behind holes %lu kB\n", milliseconds(at), delivered / 1000,
                 to == nullptr ? 0 : to->bundle().bytes_held() / 1000);
    if (from != nullptr) {
        for (const tndm::carrier* carrier : from->carriers()) {
            print_lane(out, of, *from, *carrier);
        }
    }
}

}  // namespace grid

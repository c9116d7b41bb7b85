#include "timings.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace tool {
namespace {

std::string remoteText(const zel::http::TransferFacts& facts) {
    const std::string& address = facts.remote_address;
    if (address.empty()) return {};
    const bool six = address.find(':') != std::string::npos;
    return (six ? '[' + address + ']' : address) + ':' + std::to_string(facts.remote_port);
}

}  // namespace

Timings timingsOf(const zel::http::TransferFacts& facts) {
    double before = 0;
    // The facts say when each phase ended. For one that did not take place they say 0, or the time
    // of the phase before.
    const auto phase = [&](std::chrono::duration<double, std::milli> end) {
        const double over = std::max(before, end.count());
        return over - std::exchange(before, over);
    };
    Timings timings;
    timings.lookup = phase(facts.looked_up);
    timings.connect = phase(facts.connected);
    timings.tls = phase(facts.tls_done);
    timings.wait = phase(facts.first_byte);
    timings.receive = phase(facts.total);
    timings.total = before;
    const auto slash = facts.protocol.find('/');
    if (slash != std::string::npos) timings.http_version = facts.protocol.substr(slash + 1);
    timings.remote = remoteText(facts);
    timings.new_connection = !timings.remote.empty() && !facts.connection_reused;
    return timings;
}

}  // namespace tool

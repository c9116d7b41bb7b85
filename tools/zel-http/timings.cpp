// Reads libcurl's timings of each transfer. Defines the engine's hook that is called with the easy
// handle before the transfer starts.

#include "timings.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

#include "zel_http/engine_hooks.h"

namespace tool {
namespace {

std::mutex mutex;
/// The engine attaches transfers in the order in which they were queued. Guarded by `mutex`.
std::deque<Recording*> expected;

Recording* takeExpected() {
    const std::lock_guard lock(mutex);
    if (expected.empty()) return nullptr;
    Recording* recording = expected.front();
    expected.pop_front();
    return recording;
}

/// Milliseconds since the transfer began.
double reached(CURL* easy, CURLINFO what) {
    curl_off_t microseconds = 0;
    curl_easy_getinfo(easy, what, &microseconds);
    return static_cast<double>(microseconds) / 1000;
}

std::string versionText(CURL* easy) {
    long version = 0;
    curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
    switch (version) {
        case CURL_HTTP_VERSION_1_0:
            return "1.0";
        case CURL_HTTP_VERSION_1_1:
            return "1.1";
        case CURL_HTTP_VERSION_2_0:
            return "2";
        default:
            return {};
    }
}

std::string remoteText(CURL* easy) {
    const char* address = nullptr;
    long port = 0;
    curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &address);
    curl_easy_getinfo(easy, CURLINFO_PRIMARY_PORT, &port);
    if (address == nullptr || *address == '\0') return {};
    const std::string text = address;
    const bool six = text.find(':') != std::string::npos;
    return (six ? '[' + text + ']' : text) + ':' + std::to_string(port);
}

void read(CURL* easy, Timings& timings) {
    double before = 0;
    // libcurl says when each phase ended. For a phase that did not take place it says 0, or the
    // time of the phase before.
    const auto phase = [&](CURLINFO what) {
        const double over = std::max(before, reached(easy, what));
        return over - std::exchange(before, over);
    };
    timings.lookup = phase(CURLINFO_NAMELOOKUP_TIME_T);
    timings.connect = phase(CURLINFO_CONNECT_TIME_T);
    timings.tls = phase(CURLINFO_APPCONNECT_TIME_T);
    timings.wait = phase(CURLINFO_STARTTRANSFER_TIME_T);
    timings.receive = phase(CURLINFO_TOTAL_TIME_T);
    timings.total = before;
    timings.http_version = versionText(easy);
    timings.remote = remoteText(easy);
    long connections = 0;
    curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connections);
    timings.new_connection = connections > 0;
}

/// libcurl calls this while it drives the transfer, and once more when that ends.
int readProgress(void* recording, curl_off_t /*downloadTotal*/, curl_off_t /*downloadNow*/,
                 curl_off_t /*uploadTotal*/, curl_off_t /*uploadNow*/) {
    auto& [timings, easy] = *static_cast<Recording*>(recording);
    read(easy, timings);
    return 0;
}

}  // namespace

void record(Recording& recording) {
    const std::lock_guard lock(mutex);
    expected.push_back(&recording);
}

}  // namespace tool

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    if (auto* recording = tool::takeExpected()) {
        recording->easy = easy;
        const curl_xferinfo_callback callback = tool::readProgress;
        curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, callback);
        curl_easy_setopt(easy, CURLOPT_XFERINFODATA, recording);
        curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    }
    return curl_multi_add_handle(multi, easy);
}

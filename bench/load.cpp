#include "load.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include "process_usage.h"

namespace bench {
namespace {

/// Requests between the start of the waiting ones and the measurement, at least.
constexpr std::size_t settling = 50;

std::int64_t nanoseconds() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// How often the threads of this process, but for the calling one, have gone to sleep.
long sleeps() {
    long sum = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        if (thread.path().filename() == std::to_string(getpid())) continue;
        std::ifstream status(thread.path() / "status");
        for (std::string word; status >> word;) {
            long count = 0;
            if (word == "voluntary_ctxt_switches:" && status >> count) sum += count;
        }
    }
    return sum;
}

}  // namespace

Load::Instant Load::Instant::now() { return {nanoseconds(), cpuSeconds()}; }

Load::Load(std::string peer, int argc, char** argv) : peer_(std::move(peer)) {
    CLI::App app("One peer of the benchmarks: does some work and reports what it cost.");
    app.add_option("--url", work_.url)->required();
    app.add_option("--method", work_.method)->check(CLI::IsMember({"GET", "POST", "PUT"}));
    app.add_option("--body", work_.body_size);
    app.add_option("--expect", work_.expected_size);
    app.add_option("--ca", work_.ca_file);
    app.add_flag("--libcurl-authorities", work_.libcurl_authorities);
    app.add_option("--requests", work_.requests)->check(CLI::PositiveNumber);
    app.add_option("--warm-up", work_.warm_up);
    app.add_option("--in-flight", work_.in_flight)->check(CLI::PositiveNumber);
    app.add_option("--waiting-url", work_.waiting_url);
    app.add_option("--waiting", work_.waiting);
    app.add_flag("--cancel", work_.cancel);
    app.add_option("--idle", work_.idle_seconds);
    app.add_option("--started-at", work_.started_at);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    body_.assign(work_.body_size, 'b');
    if (work_.waiting != 0) settle_ = std::max(settling, work_.in_flight);
    total_ = work_.warm_up + settle_ + work_.requests;
    starts_.resize(total_);
    latencies_.reserve(work_.requests);
}

void Load::begin(Start start) {
    start_ = std::move(start);
    if (work_.warm_up == 0) {
        first_ = Instant::now();
        startWaiting();
    }
    const std::size_t in_flight = std::min(work_.in_flight, total_);
    while (begun_ < in_flight) startNext();
}

void Load::startNext() {
    const std::size_t id = begun_++;
    starts_[id] = nanoseconds();
    start_(id, work_.url);
}

void Load::startWaiting() {
    if (work_.waiting == 0) return;
    before_waiting_kib_ = memoryKib("RssAnon");
    for (std::size_t i = 0; i < work_.waiting; ++i) start_(total_ + i, work_.waiting_url);
}

void Load::finished(std::size_t id, bool ok) {
    if (id >= total_ || over()) return;
    const std::int64_t now = nanoseconds();
    if (completed_++ == 0) {
        first_answer_ = now;
        first_answer_kib_ = memoryKib("VmRSS");
    }
    if (!ok) ++failed_;
    const std::size_t unmeasured = work_.warm_up + settle_;
    if (id >= unmeasured) latencies_.push_back(now - starts_[id]);
    if (completed_ == work_.warm_up) startWaiting();
    if (completed_ == unmeasured) {
        if (work_.waiting != 0) waiting_kib_ = memoryKib("RssAnon");
        first_ = Instant::now();
    }
    if (over()) {
        last_ = Instant::now();
    } else if (begun_ < total_) {
        startNext();
    }
}

void Load::cancelled(const std::function<void()>& action) {
    const Instant before = Instant::now();
    action();
    const Instant after = Instant::now();
    extra_ +=
        fmt::format(R"(, "cancel_cpu_s": {:.6f}, "cancel_wall_s": {:.6f})", after.cpu - before.cpu,
                    static_cast<double>(after.wall - before.wall) / 1e9);
}

double Load::percentile(double share) {
    if (latencies_.empty()) return 0;
    const auto rank = static_cast<std::size_t>(share * static_cast<double>(latencies_.size() - 1));
    const auto at = latencies_.begin() + static_cast<std::ptrdiff_t>(rank);
    std::nth_element(latencies_.begin(), at, latencies_.end());
    return static_cast<double>(*at) / 1e3;
}

int Load::report() {
    if (work_.idle_seconds != 0) {
        sleep(1);  // until the engine rests
        const double cpu = cpuSeconds();
        const long before = sleeps();
        sleep(work_.idle_seconds);
        extra_ += fmt::format(R"(, "idle_s": {}, "idle_cpu_s": {:.6f}, "idle_wakeups": {})",
                              work_.idle_seconds, cpuSeconds() - cpu, sleeps() - before);
    }
    if (work_.waiting != 0) {
        extra_ += fmt::format(R"(, "waiting": {}, "waiting_kib": {})", work_.waiting,
                              waiting_kib_ - before_waiting_kib_);
    }
    if (work_.started_at != 0) {
        extra_ += fmt::format(R"(, "first_answer_s": {:.6f}, "first_answer_kib": {})",
                              static_cast<double>(first_answer_ - work_.started_at) / 1e9,
                              first_answer_kib_);
    }
    fmt::print(
        R"({{"peer": "{}", "requests": {}, "failed": {}, "cpu_s": {:.6f}, "wall_s": {:.6f}, )"
        R"("p50_us": {:.1f}, "p99_us": {:.1f}, "peak_kib": {}{}}})"
        "\n",
        peer_, work_.requests, failed_, last_.cpu - first_.cpu,
        static_cast<double>(last_.wall - first_.wall) / 1e9, percentile(0.50), percentile(0.99),
        memoryKib("VmHWM"), extra_);
    static_cast<void>(std::fflush(stdout));
    return failed_ == 0 ? 0 : 1;
}

}  // namespace bench

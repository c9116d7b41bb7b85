#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What every peer is asked to do and how it is measured: the same command line, the same load and
/// the same line of JSON for all.
namespace bench {

struct Work {
    std::string url;
    std::string method = "GET";
    /// Bytes to send with a POST or PUT.
    std::size_t body_size = 0;
    /// Bytes that a right answer has.
    std::size_t expected_size = 0;
    std::string ca_file;
    /// raw-multi only: leave the authorities, but for `ca_file`, as libcurl has them.
    bool libcurl_authorities = false;
    std::size_t requests = 1;
    /// Not measured, before the others.
    std::size_t warm_up = 0;
    std::size_t in_flight = 1;
    /// Started before what is measured; their server never answers.
    std::string waiting_url;
    std::size_t waiting = 0;
    /// Whether the waiting ones are cancelled at the end, and that is measured.
    bool cancel = false;
    unsigned idle_seconds = 0;
    /// Of the monotonic clock, nanoseconds: when the process was started.
    std::int64_t started_at = 0;
};

/// Keeps `Work::in_flight` requests going until all have finished. One thread at a time.
class Load {
public:
    /// Begins a request; what it comes to is told to `finished`, later. `id` is its number.
    using Start = std::function<void(std::size_t id, const std::string& url)>;

    /// Ends the process with a message when the command line is wrong.
    Load(std::string peer, int argc, char** argv);

    const Work& work() const { return work_; }
    /// The bytes to send.
    const std::string& body() const { return body_; }

    void begin(Start start);
    /// Starts what comes next.
    void finished(std::size_t id, bool ok);
    /// As above, judging by what was received.
    void finished(std::size_t id, long status, std::size_t size) {
        finished(id, status == 200 && size == work_.expected_size);
    }
    bool over() const { return completed_ == total_; }

    /// Measures `action`, which cancels what is waiting and returns when all of it is gone.
    void cancelled(const std::function<void()>& action);
    /// Does nothing for the idle time and writes the line. Returns the exit status of the process.
    int report();

private:
    struct Instant {
        std::int64_t wall;
        double cpu;
        static Instant now();
    };

    void startNext();
    void startWaiting();
    double percentile(double share);

    std::string peer_;
    Work work_;
    std::string body_;
    Start start_;
    std::size_t settle_ = 0;
    std::size_t total_ = 0;
    std::size_t begun_ = 0;
    std::size_t completed_ = 0;
    std::size_t failed_ = 0;
    std::vector<std::int64_t> starts_;
    std::vector<std::int64_t> latencies_;
    Instant first_{};
    Instant last_{};
    std::int64_t first_answer_ = 0;
    long first_answer_kib_ = 0;
    long before_waiting_kib_ = 0;
    long waiting_kib_ = 0;
    std::string extra_;
};

}  // namespace bench

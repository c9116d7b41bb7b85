// A mixed load for some minutes, with a ledger of what became of every request.
// Usage: zel-http-soak [MINUTES [SEED]]: 2 minutes and a seed of chance unless told otherwise.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <list>

#include "caller.h"
#include "loopback/certificates.h"
#include "loopback/scripted_server.h"
#include "loopback/tls_servers.h"
#include "support/null_logger.h"
#include "support/process.h"
#include "zel_http/engine.h"

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds engine_life{4};
constexpr std::chrono::milliseconds progress_interval{500};
constexpr int callers = 3;
constexpr unsigned round_patience_seconds = 120;

/// Runs the closures of the engine on a thread of its own.
class FsmThread {
public:
    void post(const std::function<void()>& closure) { executor_.post(closure, 0); }
    /// Runs what is left. After the engine is gone, which may be long before its last outcome.
    void finish() {
        guard_.reset();
        thread_.join();
    }

private:
    boost::asio::io_context loop_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_{
        loop_.get_executor()};
    oru::asio_executor executor_{loop_};
    std::thread thread_{[this] { loop_.run(); }};
};

/// A thread that has been joined is in the kernel's list for a moment more.
Holdings holdingsAtRest() {
    Holdings last = Holdings::now();
    for (int i = 0; i < 50; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const Holdings next = Holdings::now();
        if (next == last) break;
        last = next;
    }
    return last;
}

class Soak {
public:
    Soak(const Targets& targets, std::chrono::duration<double> length, unsigned seed)
        : targets_(targets),
          seed_(seed),
          begun_(Clock::now()),
          end_(begun_ + std::chrono::duration_cast<Clock::duration>(length)) {}

    bool run() {
        std::thread([] {}).join();  // a sanitizer adds a thread of its own to the first
        const Holdings before = holdingsAtRest();
        while (Clock::now() < end_) {
            round();
            if (engines_ == 1) first_memory_ = memoryKib("VmRSS");
        }
        const Holdings after = holdingsAtRest();
        report(before, after);
        return ledger_.balanced() && before == after && ledger_.started > 0;
    }

private:
    /// The life of one engine. Every other one hands its outcomes to a thread of its own, and every
    /// other pair is destroyed with requests in flight.
    void round() {
        alarm(round_patience_seconds);
        const auto until = std::min(Clock::now() + engine_life, end_);
        FsmThread fsm;
        const bool at_once = engines_ % 2 == 0;
        const auto ending = engines_ / 2 % 2 == 0 ? Ending::wait_for_all : Ending::cancel_all;
        auto engine = std::make_unique<zel::http::Engine>(
            [&](const auto& closure) { at_once ? closure() : fsm.post(closure); }, &logger_);
        std::list<Caller> all;
        for (int i = 0; i < callers; ++i) {
            all.emplace_back(targets_, ledger_, logger_, seed_++).run(until, ending);
        }
        ++engines_;
        while (Clock::now() < until) {
            std::this_thread::sleep_for(progress_interval);
            showProgress();
        }
        for (Caller& caller : all) caller.join();
        const auto destroying = Clock::now();
        engine.reset();
        longest_destruction_ = std::max(longest_destruction_, Clock::now() - destroying);
        fsm.finish();
        for (Caller& caller : all) caller.settle();
    }

    std::string summary() const {
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begun_);
        return fmt::format("{} s, engine {}: {} started, {} delivered, {} cancelled, {} MiB",
                           seconds.count(), engines_, ledger_.started, ledger_.delivered,
                           ledger_.cancelled, memoryKib("VmRSS") / 1024);
    }

    /// A live line on a terminal, a line now and then elsewhere.
    void showProgress() {
        if (isatty(STDOUT_FILENO) != 0) {
            std::cout << "\r\033[K" << summary() << std::flush;
        } else if (Clock::now() - shown_ >= std::chrono::seconds(10)) {
            shown_ = Clock::now();
            std::cout << summary() << std::endl;
        }
    }

    void report(const Holdings& before, const Holdings& after) const {
        const std::chrono::duration<double, std::milli> longest = longest_destruction_;
        std::cout << (isatty(STDOUT_FILENO) != 0 ? "\r\033[K" : "")
                  << fmt::format("{} engines, {} callers each with 2 clients\n", engines_, callers)
                  << ledger_.text()
                  << fmt::format(
                         "memory: {:.1f} MiB at most, {:.1f} MiB after the first engine, {:.1f} "
                         "MiB after the last\n",
                         mebi(memoryKib("VmHWM")), mebi(first_memory_), mebi(memoryKib("VmRSS")))
                  << fmt::format("at the start {}, at the end {}\n", before.text(), after.text())
                  << fmt::format("longest destruction of an engine: {:.1f} ms\n", longest.count());
    }

    static double mebi(long kib) { return static_cast<double>(kib) / 1024.0; }

    const Targets& targets_;
    unsigned seed_;
    Clock::time_point begun_;
    Clock::time_point end_;
    Clock::time_point shown_ = begun_;
    NullLogger logger_;
    Ledger ledger_;
    int engines_ = 0;
    long first_memory_ = 0;
    Clock::duration longest_destruction_{};
};

/// In a process of their own.
void serve(const ServerProcess::Ready& ready) {
    const loopback::Origin origin;
    const loopback::TlsServers tls;
    const loopback::ScriptedServer broken("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
    // Held without listening, so that no connection can come by the port as its own.
    boost::asio::io_context loop;
    boost::asio::ip::tcp::acceptor closed(loop, boost::asio::ip::tcp::v4());
    closed.bind({boost::asio::ip::address_v4::loopback(), 0});
    ready({origin.url(""), tls.local().url(""), tls.certificates().file("root.pem"), broken.url(),
           fmt::format("http://127.0.0.1:{}/", closed.local_endpoint().port())});
}

}  // namespace
}  // namespace test

int main(int argc, char** argv) {
    using namespace test;
    const double minutes = argc > 1 ? std::strtod(argv[1], nullptr) : 2.0;
    if (minutes <= 0.0 || minutes > 100000.0) {
        std::cerr << "zel-http-soak: '" << argv[1] << "' is not a number of minutes\n";
        return 2;
    }
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10))
                                   : std::random_device()();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"})
        unsetenv(name);
    const ServerProcess servers(serve);
    const auto& at = servers.addresses();
    const Targets targets{at[0], at[1], at[2], at[3], at[4]};
    std::cout << fmt::format("mixed load for {} minutes, seed {}\n", minutes, seed) << std::flush;
    const bool held = Soak(targets, std::chrono::duration<double>(minutes * 60), seed).run();
    std::cout << (held ? "all is accounted for and nothing is left\n"
                       : "something is NOT accounted for, or left\n");
    return held ? 0 : 1;
}

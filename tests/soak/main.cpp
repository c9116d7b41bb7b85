// A mixed load for some minutes: what became of every request, and whether memory in use grows.
// Usage: zel-http-soak [MINUTES [SEED]]: 2 minutes and a seed of chance unless told otherwise.

#include <fmt/format.h>
#include <malloc.h>
#include <unistd.h>

#include <boost/asio/steady_timer.hpp>
#include <iostream>
#include <list>
#include <map>
#include <random>
#include <sstream>

#include "loopback/event.h"
#include "loopback/recording_logger.h"
#include "loopback/server_process.h"
#include "loopback/tls_servers.h"
#include "oru/asio_executor.h"
#include "oru/thread_executor.h"
#include "support/directory.h"
#include "support/process.h"
#include "support/request.h"
#include "zel_http/client.h"
#include "zel_http/download.h"
#include "zel_http/engine.h"
#include "zel_http/testing/scripted_server.h"

using loopback::bodyOf;
using test::Get;
using test::Method;

using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool judges_memory = false;  // the allocator's statistics say nothing there
#else
constexpr bool judges_memory = true;
#endif

/// Where the requests go: an origin, one over TLS that `authorities` knows, and one that closes in
/// the middle of its body.
struct Targets {
    std::string origin, tls_origin, authorities, broken;
};

/// What became of every request. Any thread.
struct Ledger {
    std::atomic<long> started{0}, delivered{0}, cancelled{0};
    // What must not be.
    std::atomic<long> after_its_end{0}, other_than_expected{0};
};

/// "200 300 bytes", or "other bytes" for a body that is not `bodyOf` of its length.
std::string textOf(const zel::http::ResponseData& data) {
    return fmt::format("{} {} {}bytes", data.status, data.body.size(),
                       data.body == bodyOf(data.body.size()) ? "" : "other ");
}
std::string textOf(const zel::http::ErrorData& error) {
    std::ostringstream text;
    text << error.failure;
    return text.str();
}

/// One request and the one outcome it may have; empty for one that can only be cancelled.
struct Work {
    zel::http::RequestConfig config;
    std::string expected;
};

Work anyWork(const Targets& to, std::minstd_rand& random) {
    // Mostly small, now and then some hundred KiB.
    const std::size_t size = random() % (random() % 8 == 0 ? 400000 : 3000);
    const std::string& origin = random() % 3 == 0 ? to.tls_origin : to.origin;
    const std::string bytes = fmt::format("200 {} bytes", size);
    const std::string form = std::vector{"", "?chunked", "?close"}[size % 3];
    const Method method = std::vector{Method::POST, Method::PUT, Method::PATCH}[random() % 3];
    const auto get = [&](const std::string& url) { return Get(url).trusting(to.authorities); };
    const int limit = 1 + static_cast<int>(size % 60);
    const Work download{get(fmt::format("{}/bytes/{}{}", origin, size, form)), bytes};
    const Work upload{get(origin + "/echo").sends(method, ""), bytes};
    const Work all[] = {
        {get(to.broken), "<Protocol failure>"},
        upload,
        {get("http://h:99999/"), "<Invalid URL>"},
        {Get(to.tls_origin + "/hello"), "<Protocol failure>"},
        {get(fmt::format("{}/redirect/{}", origin, 1 + size % 5)), "200 0 bytes"},
        {get(origin + "/silence").within(limit), "<Operation timed out>"},
        {get(origin + "/bytes/50000" + form).atMost(49999), "<Protocol failure>"},
        {get(origin + "/silence"), ""},
        {get(origin + "/redirect/1?status=307").sends(method, "").login("me", "secret"), bytes},
        upload,
        upload,
        upload,
        download,
        download,
        download,
        download};
    Work work = all[random() % std::size(all)];
    if (work.config.method != Method::GET) work.config.body = bodyOf(size);
    return work;
}

/// Keeps the body as it comes, on the engine thread, where it reports its outcome too.
class OwnRequest : public zel::http::Request {
public:
    OwnRequest(const zel::http::RequestConfig& config, std::function<void(std::string)> report)
        : Request(config), report_(std::move(report)) {}
    void notifyDataReceived(const char* data, unsigned length) override {
        body_.append(data, length);
    }
    void notifyDataEnd() override { report_(textOf({getResponseCode(), {}, body_})); }
    void notifyFailure(zel::http::Failure failure, const char* /*text*/) override {
        report_(textOf({static_cast<zel::http::ClientFailure>(failure), {}}));
    }
    void start() override {}

private:
    const std::function<void(std::string)> report_;
    std::string body_;
};

/// An application under load: a thread with an executor, a client, and requests of its own. It
/// keeps 40 in flight, cancels at random moments, and pauses and resumes its own, and downloads.
class Application {
public:
    Application(const Targets& targets, Ledger& ledger, logging::Logger& logger, unsigned seed)
        : targets_(targets),
          ledger_(ledger),
          logger_(logger),
          random_(seed),
          client_(zel::http::createClient(executor_, logger)) {}
    /// After `until` it waits for all requests but those that can only be cancelled.
    void run(Clock::time_point until) {
        const auto busy = boost::asio::make_work_guard(loop_);
        goOn();
        loop_.run_until(until);
        running_ = false;
        std::vector<std::uint64_t> cancelled;
        for (const auto& [key, entry] : entries_) {
            if (entry.expected.empty()) cancelled.push_back(key);
        }
        for (const auto key : cancelled) cancel(key);
        while (!entries_.empty()) loop_.run_one();
    }

private:
    struct Entry {
        std::string expected;
        std::function<void()> cancel;
        std::shared_ptr<zel::http::Request> own;
        std::shared_ptr<zel::http::Download> download;
    };

    void goOn() {
        while (running_ && entries_.size() < 40) startOne(next_key_++);
    }

    void startOne(std::uint64_t key) {
        const auto [config, expected] = anyWork(targets_, random_);
        Entry& entry = entries_[key];
        entry.expected = expected;
        ++ledger_.started;
        if (random_() % 10 == 0 && !expected.empty() && config.max_download_size == -1) {
            startOwn(key, entry, config);
        } else if (random_() % 8 == 0 && config.method == Method::GET && expected[0] == '2') {
            startDownload(key, entry, config);
        } else {
            const auto done = [=](const auto& outcome) { finish(key, textOf(outcome)); };
            using Handle = oru::AsyncActionHandle<zel::http::ZelHttpClientTag>;
            const auto handle =
                std::make_shared<Handle>(client_->start_request(config, {}, done, done));
            entry.cancel = [handle] { *handle = Handle(); };
        }
        const bool cancels = expected.empty() || (!entry.own && random_() % 5 == 0);
        if (cancels) later(key, [=](Entry&) { cancel(key); });
    }

    /// Paused before its start or while it runs, for a moment.
    void startOwn(std::uint64_t key, Entry& entry, const zel::http::RequestConfig& config) {
        entry.own = std::make_shared<OwnRequest>(config, [=](const std::string& outcome) {
            executor_.post([=] { finish(key, outcome); }, 0);
        });
        if (random_() % 4 == 0) entry.own->pauseRequest();
        entry.own->runRequest();
        later(key, [=](Entry& running) {
            running.own->pauseRequest();
            later(key, [](Entry& paused) { paused.own->resumeRequest(); });
        });
    }

    /// Into a file, or a callable that has no room now and then.
    void startDownload(std::uint64_t key, Entry& entry, const zel::http::RequestConfig& request) {
        const auto path = directory_.file(std::to_string(key));
        const auto body = std::make_shared<std::string>();
        zel::http::DownloadConfig config;
        config.request = request;
        if (key % 2 == 0) {
            config.sink = zel::http::FileSink{path};
        } else {
            config.sink = zel::http::CallableSink{[=](const char* data, std::size_t size) {
                const std::size_t taken = 1 + random_() % size;
                body->append(data, taken);
                if (taken < size) later(key, [](Entry& full) { full.download->takeMore(); });
                return taken;
            }};
        }
        zel::http::DownloadCallbacks callbacks;
        callbacks.on_complete = [=](const zel::http::DownloadResult& result) {
            if (key % 2 == 0) *body = test::contentOf(path);
            finish(key, textOf({result.head.status, {}, *body}));
        };
        callbacks.on_error = [=](const auto& error) { finish(key, error.message); };
        entry.download = std::make_shared<zel::http::Download>(
            zel::http::startDownload(executor_, logger_, config, callbacks));
        entry.cancel = [download = entry.download] { download->cancel(); };
        later(key, [=](Entry& running) {
            running.download->pause();
            later(key, [](Entry& paused) { paused.download->resume(); });
        });
    }

    /// Runs `work` after some milliseconds unless the request is over by then.
    void later(std::uint64_t key, const std::function<void(Entry&)>& work) {
        const std::chrono::milliseconds delay(random_() % 25);
        const auto timer = std::make_shared<boost::asio::steady_timer>(loop_, delay);
        timer->async_wait([this, key, timer, work](auto) {
            if (const auto it = entries_.find(key); it != entries_.end()) work(it->second);
        });
    }

    void cancel(std::uint64_t key) {
        entries_.extract(key).mapped().cancel();
        ++ledger_.cancelled;
        goOn();
    }

    void finish(std::uint64_t key, const std::string& outcome) {
        const auto entry = entries_.extract(key);
        if (entry.empty()) {
            ++ledger_.after_its_end;
            return;
        }
        ++ledger_.delivered;
        if (outcome != entry.mapped().expected && ++ledger_.other_than_expected <= 5) {
            std::cerr << "\nexpected " << entry.mapped().expected << ", came " << outcome << '\n';
        }
        goOn();
    }

    const Targets& targets_;
    Ledger& ledger_;
    logging::Logger& logger_;
    const test::Directory directory_;
    std::minstd_rand random_;
    boost::asio::io_context loop_;
    oru::asio_executor executor_{loop_};
    const std::shared_ptr<zel::http::Client> client_;
    std::map<std::uint64_t, Entry> entries_;
    std::uint64_t next_key_ = 0;
    bool running_ = true;
};

/// The life of one engine under three applications.
void runEngine(const Targets& targets, Ledger& ledger, unsigned seed, unsigned number,
               Clock::time_point until) {
    alarm(120);
    loopback::RecordingLogger logger(9, 0);
    oru::thread_executor fsm("fsm");
    const bool at_once = number % 2 == 0;  // or by a thread of its own
    const zel::http::Engine engine([&](const auto& run) { at_once ? run() : fsm.post(run, 0); },
                                   &logger);
    std::list<Application> applications;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 3; ++i) {
        auto& application =
            applications.emplace_back(targets, ledger, logger, seed + 3 * number + i);
        threads.emplace_back([&, until] { application.run(until); });
    }
    for (std::thread& thread : threads) thread.join();
}

/// What the allocator has given out, in bytes. Once caches that live as long as the process are
/// filled, it stays the same to the byte.
double memoryInUse() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

bool soak(const Targets& targets, Clock::time_point end, unsigned seed) {
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    std::thread([] {}).join();  // a sanitizer adds a thread of its own to the first
    const auto before = test::descriptorsAndThreads();
    Ledger ledger;
    double first_memory = 0;
    for (unsigned number = 0; Clock::now() < end; ++number) {
        runEngine(targets, ledger, seed, number,
                  std::min(Clock::now() + std::chrono::seconds(2), end));
        if (number < 2) first_memory = memoryInUse();
        std::cout << fmt::format("{}engine {}: {} started, {:.0f} KiB in use{}",
                                 terminal ? "\r\033[K" : "", number + 1, ledger.started,
                                 memoryInUse() / 1024, terminal ? "" : "\n")
                  << std::flush;
    }
    const auto& [started, delivered, cancelled, after_its_end, other] = ledger;
    const long unaccounted = started - delivered - cancelled;
    const double growth = judges_memory ? memoryInUse() - first_memory : 0;
    std::cout << fmt::format(
        "\nstarted {}: delivered {}, cancelled {}, unaccounted for {}\n"
        "heard of after their end {}, other than expected {}\n"
        "memory in use since the second engine: {}\n",
        started, delivered, cancelled, unaccounted, after_its_end, other,
        judges_memory ? fmt::format("{:+} bytes", growth) : "is the sanitizer's to judge");
    loopback::waitFor("threads and descriptors as before",
                      [&] { return test::descriptorsAndThreads() == before; });
    return started > 0 && unaccounted == 0 && after_its_end + other == 0 && growth <= 0;
}

/// In a process of their own.
void serve(const loopback::ServerProcess::Ready& ready) {
    const loopback::Origin origin;
    const loopback::TlsServers tls;
    const zel::testing::ScriptedServer broken("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
    ready({origin.url(""), tls.local().url(""), tls.certificates().file("root.pem"), broken.url()});
}

int main(int argc, char** argv) {
    const double minutes = argc > 1 ? std::strtod(argv[1], nullptr) : 2.0;
    if (minutes <= 0.0 || minutes > 100000.0) {
        std::cerr << "zel-http-soak: '" << argv[1] << "' is not a number of minutes\n";
        return 2;
    }
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10))
                                   : std::random_device()();
    if (std::getenv("GLIBC_TUNABLES") == nullptr) {
        // What is kept for a thread's next allocations, or for the next thread, would count as in
        // use.
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0:glibc.pthread.stack_cache_size=0", 1);
        execv("/proc/self/exe", argv);
    }
    const loopback::ServerProcess servers(serve);
    const auto& at = servers.addresses();
    std::cout << fmt::format("mixed load for {} minutes, seed {}\n", minutes, seed) << std::flush;
    const auto length = std::chrono::milliseconds(static_cast<long>(minutes * 60000));
    const bool held = soak({at[0], at[1], at[2], at[3]}, Clock::now() + length, seed);
    std::cout << (held ? "all is accounted for and nothing is left\n"
                       : "something is NOT accounted for, or left\n");
    return held ? 0 : 1;
}

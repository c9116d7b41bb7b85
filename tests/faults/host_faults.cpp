// A host that runs outcomes when and where it likes, throws, and runs out of memory.

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <future>
#include <mutex>
#include <new>
#include <thread>

#include "failing_calls.h"
#include "fault.h"

namespace test {
namespace {

using test::Exchange;

constexpr std::size_t several = 50;

/// Keeps the closures of an engine for later.
class Kept {
public:
    Exchange::Runner runner() {
        return [this](const auto& closure) {
            const std::lock_guard lock(mutex_);
            closures_.push_back(closure);
        };
    }
    std::vector<std::function<void()>> take(std::size_t count) {
        waitUntil([&] {
            const std::lock_guard lock(mutex_);
            return closures_.size() >= count;
        });
        const std::lock_guard lock(mutex_);
        return std::exchange(closures_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::function<void()>> closures_;
};

/// Requests of a client and their outcomes on its executor.
class Several {
public:
    Several(Exchange& host, const std::string& url) {
        for (std::size_t i = 0; i < several; ++i) {
            handles_.push_back(host.client->start_request(
                test::requestOf(url), {}, [this, i](const auto&) { ++outcomes_[i]; },
                [this, i](const auto&) { ++outcomes_[i]; }));
        }
    }
    void cancelHalf() { handles_.resize(several / 2); }
    /// "25 of 50, each once" after running what the executor has.
    std::string tally(Exchange& host) {
        host.loop.restart();
        host.loop.poll();
        const auto came = std::count(outcomes_.begin(), outcomes_.end(), 1);
        const bool twice =
            std::any_of(outcomes_.begin(), outcomes_.end(), [](int n) { return n > 1; });
        return fmt::format("{} of {}, {}", came, several, twice ? "some twice" : "each once");
    }

private:
    std::array<int, several> outcomes_{};
    std::vector<oru::AsyncActionHandle<zel::http::ZelHttpClientTag>> handles_;
};

using Run = std::function<void(std::vector<std::function<void()>>)>;

/// The host keeps all closures and then has `run` do with them what it likes.
std::string laterRunner(const std::string& origin, const Run& run) {
    Kept kept;
    Exchange host(kept.runner());
    Several requests(host, origin + "/hello");
    run(kept.take(several));
    return requests.tally(host);
}

std::string runOnceTheEngineIsGone(const std::string& origin, const Run& run) {
    Kept kept;
    loopback::RecordingLogger logger;
    std::vector<std::shared_ptr<test::ProbeRequest>> requests;
    std::vector<std::function<void()>> closures;
    {
        const zel::http::Engine engine(kept.runner(), &logger);
        for (std::size_t i = 0; i < several; ++i) {
            requests.push_back(test::probe(origin + "/hello"));
            requests.back()->runRequest();
        }
        closures = kept.take(several);
    }
    run(std::move(closures));
    return tally(requests);
}

/// The queue is never empty, and every wait ends at once.
std::string endlessQueue(const std::string& origin) {
    std::function<void()> again;
    Exchange host;
    again = [&] { host.engine.queueRequest(again); };
    host.engine.queueRequest(again);
    const std::string limited = host.perform("--timeout 0.3 " + origin + "/silence");
    return limited + ", " + host.perform(origin + "/hello");
}

std::string slowExecutor(const std::string& origin) {
    Exchange host;
    Several requests(host, origin + "/hello");
    waitUntil(
        [&] { return host.logger.lines("runCallbackHandlerInFsmContext").size() == several; });
    host.settle();  // the line comes before the post
    requests.cancelHalf();
    return requests.tally(host);
}

/// A request that throws out of the named operation.
class ThrowingRequest : public test::ProbeRequest {
public:
    ThrowingRequest(const std::string& line, std::string operation, std::function<void()> fault)
        : ProbeRequest(line), operation_(std::move(operation)), fault_(std::move(fault)) {}

    void notifyHeader(const char* line, unsigned length) override {
        at("notifyHeader");
        ProbeRequest::notifyHeader(line, length);
    }
    void notifySize(unsigned /*size*/) override { at("notifySize"); }
    void notifyDataReceived(const char* data, unsigned length) override {
        at("notifyDataReceived");
        ProbeRequest::notifyDataReceived(data, length);
    }
    std::string xauthCookieDomain() const override {
        at("xauthCookieDomain");
        return {};
    }
    void notifyDataEnd() override {
        at("notifyDataEnd");
        ProbeRequest::notifyDataEnd();
    }

private:
    void at(const char* operation) const {
        if (operation_ == operation) fault_();
    }

    std::string operation_;
    std::function<void()> fault_;
};

/// What a child process says on standard error before it ends by a signal.
std::string lastWords(const std::function<void()>& work) {
    const ChildsEnd end = inChild(work);
    const std::string first = end.words.substr(0, end.words.find('\n'));
    return (WIFSIGNALED(end.status) ? "the process ends: " : "the process goes on: ") + first;
}

std::string thrownFrom(const std::string& origin, const std::string& operation,
                       const std::function<void()>& fault) {
    Exchange host;
    const auto request =
        std::make_shared<ThrowingRequest>(origin + "/bytes/100000", operation, fault);
    request->config.xauth_check_domain = true;
    const std::string came = request->runToOutcome();
    const auto lines = host.logger.lines("error: Engine::").size();
    return andServes(host, origin, fmt::format("{}, {} reported", came, lines));
}

std::string outOfMemory(const std::string& origin) {
    Exchange host;
    failing_allocation = 1000000;
    const std::string came = host.perform(origin + "/bytes/3000000?chunked");
    failing_allocation = std::numeric_limits<std::size_t>::max();
    return andServes(host, origin, came);
}

std::string cancelledWithoutMemory(const std::string& origin) {
    Exchange host;
    int outcomes = 0;
    const auto count = [&](const auto&) { ++outcomes; };
    auto handle = host.client->start_request(
        test::requestOf("--timeout 0.3 " + origin + "/silence"), {}, count, count);
    std::promise<void> held;  // the engine thread, whose memory is not the question
    std::promise<void> release;
    host.engine.queueRequest([&] {
        held.set_value();
        release.get_future().wait();
    });
    held.get_future().wait();
    failing_allocation = 0;
    handle.cancel();
    failing_allocation = std::numeric_limits<std::size_t>::max();
    release.set_value();
    waitUntil([&] { return !host.logger.lines("runCallbackHandlerInFsmContext").empty(); });
    host.settle();
    host.loop.poll();
    return andServes(host, origin, fmt::format("{} outcomes", outcomes));
}

class ThrowingLogger final : public logging::Logger {
public:
    void critical(fmt::string_view /*format*/, fmt::printf_args /*args*/) override { fail(); }
    void error(fmt::string_view /*format*/, fmt::printf_args /*args*/) override { fail(); }
    void debug(int /*level*/, fmt::string_view /*format*/, fmt::printf_args /*args*/) override {
        fail();
    }
    bool isDebugEnabled(int /*level*/) const override { return true; }
    logging::detail::StreamProxy infoStream() override { fail(); }
    logging::detail::StreamProxy debugStream(int /*level*/) override { fail(); }

private:
    [[noreturn]] static void fail() { throw std::runtime_error("the disk is full"); }
};

std::string clientWithThrowingLogger(const std::string& origin) {
    Exchange host;
    ThrowingLogger logger;
    int outcomes = 0;
    const auto client = zel::http::createClient(host.executor, logger);
    std::string came;
    try {
        const auto handle = client->start_request(
            test::requestOf(origin + "/hello"), {}, [&](const auto&) { ++outcomes; },
            [&](const auto&) { ++outcomes; });
    } catch (const std::runtime_error& error) {
        came = std::string("the caller gets: ") + error.what();
    }
    zel::http::LogFilter none;
    none.payload = zel::http::LogFilter::None;
    client->start_request(
        test::requestOf(origin + "/hello"), none, [&](auto, const auto&) { came += ", then 200"; },
        [&](auto, const auto&) { came += ", then an error"; });
    while (came.find("then") == std::string::npos) {
        try {
            host.runUntil([&] { return came.find("then") != std::string::npos; });
        } catch (const std::runtime_error& error) {  // over the outcome of the first request
            came += std::string(", the executor: ") + error.what();
        }
    }
    return andServes(host, origin, came + fmt::format(", {} outcomes of the first", outcomes));
}

}  // namespace

Faults hostFaults(const std::string& origin) {
    const std::string all = "50 of 50, each once";
    const std::string write_failed =
        "200 <Protocol failure> Failed writing received data to disk/application";
    const std::string reported = write_failed + ", 1 reported";
    const std::string named_end = "the process ends: Thread 'CurlEngine' ended by an exception: ";
    const auto in_order = [](const auto& closures) {
        for (const auto& closure : closures) closure();
    };
    const auto backwards = [=](auto closures) {
        std::reverse(closures.begin(), closures.end());
        in_order(closures);
    };
    const auto elsewhere = [=](const auto& closures) {
        std::thread([&] { in_order(closures); }).join();
    };
    const auto later = [&](const auto& run) { return [=] { return laterRunner(origin, run); }; };
    const auto thrower = [&](const std::string& operation, auto thrown) {
        return [=] { return thrownFrom(origin, operation, [=] { throw thrown; }); };
    };
    const auto dying = [&](const std::string& operation) {
        return [=] {
            return lastWords([=] {
                thrownFrom(origin, operation, [] { throw std::runtime_error("host's fault"); });
            });
        };
    };
    return {
        {"FSM runner runs at once", all,
         [=] {
             Exchange host;
             Several requests(host, origin + "/hello");
             host.settle();
             waitUntil([&] {
                 return host.logger.lines("runCallbackHandlerInFsmContext").size() == several;
             });
             host.settle();
             return requests.tally(host);
         }},
        {"FSM runner runs later", all, later(in_order)},
        {"FSM runner runs later and backwards", all, later(backwards)},
        {"FSM runner runs on another thread", all, later(elsewhere)},
        {"FSM runner runs once the engine is gone", all,
         [=] { return runOnceTheEngineIsGone(origin, in_order); }},
        {"queue without end", "<Operation timed out> Timeout was reached, 200 hello",
         [=] { return endlessQueue(origin); }},
        {"executor slow, half cancelled meanwhile", "25 of 50, each once",
         [=] { return slowExecutor(origin); }},
        {"request throws an int out of notifyHeader", reported, thrower("notifyHeader", 7)},
        {"request throws out of notifySize", reported,
         thrower("notifySize", std::logic_error("no"))},
        {"request throws bad_alloc out of notifyDataReceived", reported,
         thrower("notifyDataReceived", std::bad_alloc())},
        {"request throws an int out of notifyDataReceived", reported,
         thrower("notifyDataReceived", 7)},
        {"request throws its way to end, a runtime_error", write_failed + ", 0 reported",
         thrower("notifyDataReceived", std::range_error("enough"))},
        {"request throws out of xauthCookieDomain", named_end + "host's fault",
         dying("xauthCookieDomain")},
        {"request throws out of notifyDataEnd, run at once", named_end + "host's fault",
         dying("notifyDataEnd")},
        {"memory runs out while a body is kept",
         "<Protocol failure> Failed writing received data to disk/application",
         [=] { return outOfMemory(origin); }},
        {"memory runs out while a request is cancelled", "0 outcomes",
         [=] { return cancelledWithoutMemory(origin); }},
        {"logger of a client throws",
         "the caller gets: the disk is full, the executor: the disk is full, then 200, 0 outcomes "
         "of the first",
         [=] { return clientWithThrowingLogger(origin); }},
        {"logger of the engine throws", named_end + "the disk is full",
         [=] {
             return lastWords([] {
                 ThrowingLogger logger;
                 const zel::http::Engine engine([](const auto& closure) { closure(); }, &logger);
                 waitUntil([] { return false; });
             });
         }},
    };
}

}  // namespace test

// The engine destroyed at every point of a transfer's life: in time, in silence, and holding
// nothing.

#include <fmt/format.h>

#include <random>

#include "failing_calls.h"
#include "fault.h"
#include "loopback/certificates.h"
#include "loopback/scripted_server.h"
#include "support/process.h"

namespace test {
namespace {

using namespace loopback;
using test::Exchange;
using test::ProbeRequest;

using Host = std::unique_ptr<Exchange>;
using Script = std::function<void(Socket&)>;

// Each round takes a sanitizer five times as long.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int many_rounds = 2000;
#else
constexpr int many_rounds = 10000;
#endif

const std::string quiet = "in time, silent, held by nobody";

/// What the end of the engine did to a request that was under way.
std::string end(Host& host, const std::shared_ptr<ProbeRequest>& request) {
    const double took_ms = destroy(host);
    return fmt::format("{}, {}, {}", took_ms < destruction_bound_ms ? "in time" : "late",
                       request->outcomes == 0 ? "silent" : "with an outcome",
                       request.use_count() == 1 ? "held by nobody" : "held");
}

/// Destroys the engine when `script`, at the server, has come to its end.
std::string whenServerHas(const std::string& options, const std::string& scheme,
                          const Script& script) {
    std::atomic<bool> there{false};
    const ScriptedServer server([&](Socket& socket) {
        script(socket);
        there = true;
        waitForClose(socket);
    });
    auto host = std::make_unique<Exchange>();
    const auto request = test::probe(options + scheme + "://" + server.authority() + "/");
    request->runRequest();
    waitUntil([&] { return there.load(); });
    return end(host, request);
}

std::string whenReceived(bool paused) {
    const ScriptedServer server([](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
        waitForClose(socket);
    });
    auto host = std::make_unique<Exchange>();
    const auto request = test::probe(server.url());
    request->runRequest();
    waitUntil([&] { return request->received > 0; });
    if (paused) {
        request->pauseRequest();
        host->settle();
    }
    return end(host, request);
}

std::string lookingUp() {
    const SilentNameServer names;
    auto host = std::make_unique<Exchange>();
    const auto request = test::probe("http://device.silent.test/");
    request->runRequest();
    waitUntil([&] { return names.asked(); });
    return end(host, request);
}

/// Never started, or just attached; `wait` lets the engine thread get that far.
std::string early(const std::string& origin, bool wait) {
    auto host = std::make_unique<Exchange>();
    const auto request = test::probe(origin + "/silence");
    request->runRequest();
    if (wait) host->settle();
    return end(host, request);
}

/// The outcome is with the host's FSM runner, which drops it.
std::string handedOver(const std::string& origin) {
    std::atomic<bool> handed{false};
    auto host = std::make_unique<Exchange>([&](const auto& /*dropped*/) { handed = true; });
    const auto request = test::probe(origin + "/hello");
    request->runRequest();
    waitUntil([&] { return handed.load(); });
    return end(host, request);
}

/// The outcome is with the client's executor, which runs no more.
std::string posted(const std::string& origin) {
    auto host = std::make_unique<Exchange>();
    int outcomes = 0;
    const auto note = [&](const auto&) { ++outcomes; };
    const std::weak_ptr<zel::http::Client> client = host->client;
    {
        const auto handle =
            host->client->start_request(test::requestOf(origin + "/hello"), {}, note, note);
        waitUntil([&] { return !host->logger.lines("runCallbackHandlerInFsmContext").empty(); });
    }
    destroy(host);
    return fmt::format("{} outcomes, the client {}", outcomes, client.expired() ? "gone" : "held");
}

/// As many as a device will hardly have, all connected and waiting.
std::string crowdInFlight(const std::string& origin) {
    constexpr std::size_t crowd = 2000;
    const DescriptorLimit many(DescriptorLimit::highest());
    auto host = std::make_unique<Exchange>();
    std::vector<std::shared_ptr<ProbeRequest>> requests;
    for (std::size_t i = 0; i < crowd; ++i) {
        requests.push_back(test::probe(origin + "/silence"));
        requests.back()->runRequest();
    }
    host->settle();
    const std::string first = end(host, requests.front());
    return first + ", " + tally(requests);
}

std::string idleConnection(const std::string& origin) {
    auto host = std::make_unique<Exchange>();
    const auto request = test::probe(origin + "/hello");
    const std::string outcome = request->runToOutcome();
    destroy(host);
    return fmt::format("{}, {}", outcome, tally({request}));
}

/// Engines made and destroyed over and over, each with requests wherever they happen to be.
std::string manyRounds(const std::string& origin, int rounds) {
    std::minstd_rand random;
    const long memory_before = memoryKib("VmRSS");
    for (int round = 0; round < rounds; ++round) {
        auto host = std::make_unique<Exchange>();
        std::vector<std::shared_ptr<ProbeRequest>> requests;
        for (const char* target : {"/silence", "/bytes/100000", "/hello"}) {
            requests.push_back(test::probe(origin + target));
            requests.back()->runRequest();
            for (auto spin = random() % 4; spin > 0; --spin) std::this_thread::yield();
        }
        if (random() % 2 == 0) requests[1]->pauseRequest();
        if (random() % 4 == 0) host->settle();
        destroy(host);
        for (const auto& request : requests) {
            if (request->outcomes > 1 || request.use_count() != 1) {
                return fmt::format("round {}: {} outcomes, {} holders", round,
                                   request->outcomes.load(), request.use_count());
            }
        }
    }
    const long grown = memoryKib("VmRSS") - memory_before;
    if (grown > 32L * 1024) return fmt::format("grown by {} KiB", grown);
    return destructions().longest_ms < destruction_bound_ms ? "all in time" : "some late";
}

}  // namespace

Faults destructionsAtEveryPoint(const std::string& origin) {
    const auto nothing = [](Socket&) {};
    const auto request = [](Socket& socket) { readRequest(socket); };
    const auto half_header = [](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 200 OK\r\nContent-Ty");
    };
    const auto when = [](const std::string& options, const std::string& scheme,
                         const Script& script) {
        return [=] { return whenServerHas(options, scheme, script); };
    };
    const auto rounds = [=](int count) { return [=] { return manyRounds(origin, count); }; };
    const std::string put = "-X PUT -d " + std::string(8000000, 'u') + " ";
    return {
        {"while the request is in the queue", quiet, [=] { return early(origin, false); }},
        {"while it has just been started", quiet, [=] { return early(origin, true); }},
        {"while its name is looked up, in vain", quiet, lookingUp},
        {"while TLS shakes hands", quiet, when("", "https", nothing)},
        {"while a body of 8 MiB is sent and not read", quiet, when(put, "http", nothing)},
        {"while it waits for the answer", quiet, when("", "http", request)},
        {"while the header comes", quiet, when("", "http", half_header)},
        {"while the body comes", quiet, [] { return whenReceived(false); }},
        {"while it is paused", quiet, [] { return whenReceived(true); }},
        {"while the FSM runner has the outcome", quiet, [=] { return handedOver(origin); }},
        {"while the executor has the outcome", "0 outcomes, the client gone",
         [=] { return posted(origin); }},
        {"while the connection is kept for the next request", "200 end, 1 of 1, each once",
         [=] { return idleConnection(origin); }},
        {"while 2000 requests wait", quiet + ", 0 of 2000, each once",
         [=] { return crowdInFlight(origin); }},
        {"thousands of times, wherever the requests are", "all in time", rounds(many_rounds)},
    };
}

}  // namespace test

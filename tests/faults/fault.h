#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/probe_request.h"

namespace test {

/// A row of the fault table.
struct Fault {
    std::string injected;
    std::string expected;
    /// Injects the fault into an engine of its own and tells what came.
    std::function<std::string()> inject;
};
using Faults = std::vector<Fault>;

/// nginx, squid and Apache, which may be killed, while it lives. `test::at` knows their addresses.
class RealServers {
public:
    RealServers();
    RealServers(const RealServers&) = delete;
    RealServers& operator=(const RealServers&) = delete;
    ~RealServers();

    /// Ends the server with that pid file, and its workers, as a crash would.
    void killServer(const std::string& pid_file) const;
};

/// What came, and whether the engine serves the next request as if nothing had happened.
std::string andServes(test::Exchange& host, const std::string& origin, const std::string& came);

/// "7 of 9, each once", for the outcomes of `requests`.
std::string tally(const std::vector<std::shared_ptr<test::ProbeRequest>>& requests);

/// Waits up to `test::patience` for `reached` without running the loop; throws after that.
void waitUntil(const std::function<bool()>& reached);

/// How a process ended: what `waitpid` and standard error told.
struct ChildsEnd {
    int status;
    std::string words;
};
/// Runs `work` in a child process, which ends behind it with status 0.
ChildsEnd inChild(const std::function<void()>& work);

/// Destroys the host with its engine; returns the milliseconds it took and keeps the longest.
double destroy(std::unique_ptr<test::Exchange>& host);
/// What `destroy` found so far.
struct Destructions {
    long count = 0;
    double longest_ms = 0.0;
};
const Destructions& destructions();
/// No destruction of an engine may take longer, whatever its transfers are at. A sanitizer or an
/// emulator takes several times as long.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__arm__)
constexpr double destruction_bound_ms = 5000.0;
#else
constexpr double destruction_bound_ms = 1000.0;
#endif

// The groups of rows. `origin` is the URL of a `loopback::Origin` in another process.
Faults serverFaults(const std::string& origin);
Faults networkFaults(const std::string& origin);
Faults hostFaults(const std::string& origin);
Faults memoryFaults();
Faults processFaults(const std::string& origin);
Faults destructionsAtEveryPoint(const std::string& origin);
Faults hostileInput(const std::string& origin);

}  // namespace test

// Injects faults one after the other and shows what must come beside what came.
// Usage: zel-http-faults [WORD | --without WORD]: only the rows that contain the word, or only the
// others.

#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "fault.h"
#include "loopback/origin.h"
#include "support/process.h"
#include "support/server_process.h"
#include "text.h"

namespace test {
namespace {

constexpr std::size_t name_width = 52;
constexpr unsigned patience_seconds = 120;

extern "C" void tooLong(int /*signal*/) {
    constexpr char text[] = "\nzel-http-faults: the row does not end\n";
    static_cast<void>(write(STDERR_FILENO, text, sizeof text - 1));
    _exit(1);
}

/// What came of a row, and what it left behind that was not there before.
std::string run(const Fault& fault) {
    const Holdings before = Holdings::now();
    std::string came;
    try {
        came = fault.inject();
        // A look-up that libcurl has let go of ends by itself.
        waitUntil([&] { return Holdings::now() == before; });
    } catch (const std::exception& error) {
        came += fmt::format(", {} ({} before, {} after)", error.what(), before.text(),
                            Holdings::now().text());
    }
    return came;
}

int runAll(const std::string& origin, const std::string& word, bool with) {
    test::Exchange().perform(origin + "/hello");  // what is made once for a process is there now
    const std::vector<std::pair<std::string, Faults>> groups = {
        {"the server", serverFaults(origin)},
        {"the way to it", networkFaults(origin)},
        {"the host", hostFaults(origin)},
        {"the memory", memoryFaults()},
        {"the process", processFaults(origin)},
        {"hostile input", hostileInput(origin)},
        {"the end of the engine", destructionsAtEveryPoint(origin)},
    };
    int rows = 0;
    int held = 0;
    for (const auto& [title, faults] : groups) {
        if (word.empty() || !with) std::cout << title << '\n';
        for (const Fault& fault : faults) {
            if ((fault.injected.find(word) != std::string::npos) != with) continue;
            if (isatty(STDOUT_FILENO) != 0)
                std::cout << "  ...     " << fault.injected << '\r' << std::flush;
            alarm(patience_seconds);
            const std::string came = run(fault);
            ++rows;
            if (came == fault.expected) ++held;
            std::cout << tool::comparison(fault.injected, name_width, fault.expected, came)
                      << std::flush;
        }
    }
    std::cout << fmt::format(
        "{} of {} rows hold; {} engines destroyed, the longest in {:.1f} ms (bound {:.0f} ms)\n",
        held, rows, destructions().count, destructions().longest_ms, destruction_bound_ms);
    return held == rows && rows > 0 ? 0 : 1;
}

}  // namespace
}  // namespace test

int main(int argc, char** argv) {
    using namespace test;
    static_cast<void>(std::signal(SIGALRM, tooLong));
    static_cast<void>(
        std::signal(SIGPIPE, SIG_IGN));  // the scripted servers write to clients that are gone
    const ServerProcess servers([](const ServerProcess::Ready& ready) {
        const loopback::Origin origin;
        ready({origin.url("")});
    });
    const bool with = argc < 2 || std::string(argv[1]) != "--without";
    return runAll(servers.addresses().at(0), argc > 1 ? argv[argc - 1] : "", with);
}

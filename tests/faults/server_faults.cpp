// Servers that die, stall and cheat.

#include <unistd.h>

#include <fstream>

#include "fault.h"
#include "loopback/scripted_server.h"
#include "support/servers.h"

namespace test {
namespace {

using namespace loopback;
using test::Exchange;

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string half_header = ok + "Content-Type: text/pl";
const std::string half_body = ok + "Content-Length: 100\r\n\r\nhalf";

void reset(Socket& socket) {
    socket.set_option(boost::asio::socket_base::linger(true, 0));
    socket.close();
}

/// A server that says `reply` and then does something.
std::function<void(Socket&)> after(const std::string& reply,
                                   const std::function<void(Socket&)>& then) {
    return [=](Socket& socket) {
        readRequest(socket);
        write(socket, reply);
        then(socket);
    };
}

void byteByByte(Socket& socket) {
    readRequest(socket);
    socket.set_option(boost::asio::ip::tcp::no_delay(true));
    for (const char byte : ok + "Content-Length: 5\r\nX-Slow: yes\r\n\r\nhello") {
        write(socket, {byte});
        usleep(500);
    }
}

/// Answers the first request of a connection and closes it over the second.
void closeOnReuse(Socket& socket) {
    readRequest(socket);
    write(socket, ok + "Content-Length: 5\r\n\r\nfirst");
    readRequest(socket);
}

std::string twice(const std::string& origin, const std::string& options) {
    const ScriptedServer server(closeOnReuse);
    Exchange host;
    std::string came;
    for (int i = 0; i < 3; ++i) came += host.perform(options + server.url()) + ", ";
    return andServes(host, origin, came);
}

std::string silenceWithoutLimit(const std::string& origin) {
    std::atomic<bool> arrived{false};
    const ScriptedServer server([&](Socket& socket) {
        arrived = true;
        waitForClose(socket);
    });
    Exchange host;
    const auto waiting = test::probe(server.url());
    waiting->runRequest();
    waitUntil([&] { return arrived.load(); });
    const std::string beside = andServes(host, origin, "others go on");
    waiting->tryToCancelRequest();
    waitUntil([&] { return waiting.use_count() == 1; });
    return andServes(host, origin, beside + ", cancel ends it with " + tally({waiting}));
}

std::string nginxKilled(const std::string& origin) {
    const RealServers servers;
    std::ofstream(test::serverFile("large")) << std::string(1000000, 'l');
    Exchange host;
    const auto request =
        test::probe(test::at("--ca-file {dir}/root.pem https://{good}/slow/large"));
    request->runRequest();
    waitUntil([&] { return request->received > 0; });
    servers.killServer("nginx.pid");
    return andServes(host, origin, request->outcome());
}

}  // namespace

Faults serverFaults(const std::string& origin) {
    const std::string reset_text = "<Protocol failure> Failure when receiving data from the peer";
    const std::string partial = "<Protocol failure> Transferred a partial file";
    const std::string timed_out = "<Operation timed out> Timeout was reached";
    struct Row {
        std::string injected;
        std::string expected;
        std::string options;
        std::function<void(Socket&)> script;
    };
    const auto nothing = [](Socket&) {};
    const std::vector<Row> rows = {
        {"closed before the answer",
         "<Protocol failure> Server returned nothing (no headers, no data)", "",
         after("", nothing)},
        {"closed in the header", partial, "", after(half_header, nothing)},
        {"closed in the body", partial, "", after(half_body, nothing)},
        {"reset before the answer", reset_text, "", after("", reset)},
        {"reset in the header", reset_text, "", after(half_header, reset)},
        {"reset in the body", reset_text, "", after(half_body, reset)},
        {"silent before the answer, limit 0.3 s", timed_out, "--timeout 0.3 ",
         after("", waitForClose)},
        {"silent in the header, limit 0.3 s", timed_out, "--timeout 0.3 ",
         after(half_header, waitForClose)},
        {"silent in the body, limit 0.3 s", timed_out, "--timeout 0.3 ",
         after(half_body, waitForClose)},
        {"answers byte by byte", "200 hello", "", byteByByte},
    };
    Faults faults;
    for (const Row& row : rows) {
        faults.push_back({row.injected, row.expected, [&origin, row] {
                              const ScriptedServer server(row.script);
                              Exchange host;
                              return andServes(host, origin,
                                               host.perform(row.options + server.url()));
                          }});
    }
    faults.push_back({"reset while it is sent 8 MB", "<Protocol failure>", [=] {
                          const ScriptedServer server(after("", reset));
                          Exchange host;
                          const std::string outcome = host.perform(
                              "-X PUT -d " + std::string(8000000, 'u') + " " + server.url());
                          return andServes(host, origin, outcome.substr(0, outcome.find('>') + 1));
                      }});
    faults.push_back({"silent, no limit", "others go on, cancel ends it with 0 of 1, each once",
                      [&] { return silenceWithoutLimit(origin); }});
    const std::string again = "200 first, 200 first, 200 first, ";
    faults.push_back(
        {"kept-alive connection closed over a GET", again, [&] { return twice(origin, ""); }});
    faults.push_back({"kept-alive connection closed over a POST", again,
                      [&] { return twice(origin, "-d once "); }});
    faults.push_back({"nginx killed in a body over TLS, HTTP/2", "200 " + partial,
                      [&] { return nginxKilled(origin); }});
    return faults;
}

}  // namespace test

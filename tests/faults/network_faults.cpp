// Name look-ups that hang, proxies that die, handshakes that stop.

#include <unistd.h>

#include "failing_calls.h"
#include "fault.h"
#include "loopback/certificates.h"
#include "loopback/scripted_server.h"
#include "loopback/tls_servers.h"
#include "support/servers.h"

namespace test {
namespace {

using namespace loopback;
using test::Exchange;

const std::string silent_name = "http://device.silent.test/";

/// The look-up goes on behind whatever ends the request.
std::string hangingLookUp(const std::string& origin, const std::string& options,
                          const std::function<void(test::ProbeRequest&)>& end) {
    const SilentNameServer names;
    Exchange host;
    const auto waiting = test::probe(options + silent_name);
    waiting->runRequest();
    waitUntil([&] { return names.asked(); });
    std::string came = andServes(host, origin, "others go on");
    const auto begun = std::chrono::steady_clock::now();
    end(*waiting);
    waitUntil([&] { return waiting.use_count() == 1; });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    came += took.count() < 1.5 ? ", ended in time with " : ", ended late with ";
    return andServes(host, origin, came + (waiting->outcomes > 0 ? waiting->outcome() : "silence"));
}

/// Listens and accepts nobody, with no room left in its queue: a connection is never answered.
std::string fullBacklog(const std::string& origin) {
    boost::asio::io_context loop;
    boost::asio::ip::tcp::acceptor full(loop, {boost::asio::ip::address_v4::loopback(), 0}, false);
    full.listen(0);
    std::vector<Socket> filling;
    for (int i = 0; i < 3; ++i) {
        filling.emplace_back(loop, boost::asio::ip::tcp::v4());
        filling.back().native_non_blocking(true);
        const auto endpoint = full.local_endpoint();
        static_cast<void>(connect(filling.back().native_handle(), endpoint.data(),
                                  static_cast<socklen_t>(endpoint.size())));
    }
    Exchange host;
    const std::string port = std::to_string(full.local_endpoint().port());
    return andServes(host, origin, host.perform("--timeout 0.3 http://127.0.0.1:" + port + "/"));
}

/// What came of a request through a scripted proxy.
std::string throughProxy(const std::string& origin, const std::function<void(Socket&)>& script) {
    const ScriptedServer proxy(script);
    Exchange host;
    host.engine.setProxyConfig(proxy.url(), "", "");
    const std::string came = host.perform("--timeout 5 http://device.example/");
    host.engine.setProxyConfig("", "", "");
    return andServes(host, origin, came);
}

std::string squidKilled(const std::string& origin) {
    const RealServers servers;
    const ScriptedServer server([](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
        waitForClose(socket);
    });
    Exchange host;
    host.engine.setProxyConfig(test::at("http://{proxy}"), "device", "p:ss wörd");
    const auto port = server.authority().substr(server.authority().find(':'));
    const auto request = test::probe("http://device.example" + port + "/");
    request->runRequest();
    waitUntil([&] { return request->received > 0; });
    servers.killServer("squid.pid");
    return andServes(host, origin, request->outcome());
}

/// Carries a TLS handshake to `authority` and stops after so many bytes of the server's.
std::function<void(Socket&)> relay(unsigned short port, std::size_t bytes, bool then_closes) {
    return [=](Socket& client) {
        boost::asio::io_context loop;
        Socket server(loop);
        server.connect({boost::asio::ip::address_v4::loopback(), port});
        std::string hello(16384, '\0');
        hello.resize(client.read_some(boost::asio::buffer(hello)));
        write(server, hello);
        std::string answer(bytes, '\0');
        boost::asio::read(server, boost::asio::buffer(answer));
        write(client, answer);
        if (!then_closes) waitForClose(client);
    };
}

Faults handshakes(const std::string& origin) {
    struct Row {
        std::string injected;
        std::string expected;
        std::size_t bytes;
        bool closes;
    };
    const std::string timed_out = "<Operation timed out> Timeout was reached";
    const std::string broken = "<Protocol failure> SSL connect error";
    const std::vector<Row> rows = {
        {"TLS handshake closed behind the client's hello", broken, 0, true},
        {"TLS handshake closed in the server's hello", broken, 50, true},
        {"TLS handshake closed in the certificate", broken, 600, true},
        {"TLS handshake silent behind the client's hello", timed_out, 0, false},
        {"TLS handshake silent in the certificate", timed_out, 600, false},
    };
    Faults faults;
    for (const Row& row : rows) {
        faults.push_back(
            {row.injected, row.expected, [origin, row] {
                 const TlsServers tls;
                 const ScriptedServer between(relay(tls.local().port(), row.bytes, row.closes));
                 Exchange host;
                 return andServes(
                     host, origin,
                     host.perform("--timeout 0.5 --ca-file " + tls.certificates().file("root.pem") +
                                  " https://" + between.authority() + "/hello"));
             }});
    }
    faults.push_back({"TLS asked of a server that speaks HTTP", broken, [origin] {
                          Exchange host;
                          std::string url = origin;
                          url.insert(url.find(':'), "s");
                          return andServes(host, origin, host.perform(url + "/hello"));
                      }});
    return faults;
}

}  // namespace

Faults networkFaults(const std::string& origin) {
    const std::string established = "HTTP/1.1 200 OK\r\n\r\n";
    const auto look_up = [&](const std::string& options, const auto& end) {
        return [=] { return hangingLookUp(origin, options, end); };
    };
    const auto proxy = [&](const auto& script) {
        return [=] { return throughProxy(origin, script); };
    };
    Faults faults = {
        {"name server silent, limit 0.5 s",
         "others go on, ended in time with 0 <Operation timed out> Timeout was reached",
         look_up("--timeout 0.5 ", [](auto& request) { request.outcome(); })},
        {"name server silent, no limit, cancelled", "others go on, ended in time with silence",
         look_up("", [](auto& request) { request.tryToCancelRequest(); })},
        {"connection never answered, limit 0.3 s", "<Operation timed out> Timeout was reached",
         [=] { return fullBacklog(origin); }},
        {"proxy closes behind CONNECT",
         "<Protocol failure> Failure when receiving data from the peer",
         proxy([](Socket& socket) { readRequest(socket); })},
        {"proxy closes the tunnel before the answer",
         "<Protocol failure> Server returned nothing (no headers, no data)",
         proxy([=](Socket& socket) {
             readRequest(socket);
             write(socket, established);
             readRequest(socket);
         })},
        {"proxy closes the tunnel in the body", "<Protocol failure> Transferred a partial file",
         proxy([=](Socket& socket) {
             readRequest(socket);
             write(socket, established);
             readRequest(socket);
             write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
         })},
        {"squid killed in a body", "200 <Protocol failure> Transferred a partial file",
         [=] { return squidKilled(origin); }},
    };
    const Faults more = handshakes(origin);
    faults.insert(faults.end(), more.begin(), more.end());
    return faults;
}

}  // namespace test

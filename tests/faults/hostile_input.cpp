// Texts of a caller that try to put on the wire what was not asked for.

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "fault.h"
#include "loopback/scripted_server.h"
#include "loopback/tls_servers.h"

namespace test {
namespace {

using namespace loopback;
using test::Exchange;
using zel::http::RequestConfig;

using Change = std::function<void(RequestConfig&)>;

constexpr std::size_t huge = 100000;

/// Lines that a request has by itself, and the one that the rows ask for.
bool askedFor(const std::string& line) {
    for (const char* start :
         {"GET ", "CONNECT ", "Host: ", "Accept: ", "User-Agent: ", "Accept-Charset: ",
          "Authorization: ", "Proxy-Authorization: ", "Proxy-Connection: ", "X-Asked: "}) {
        if (line.rfind(start, 0) == 0) return true;
    }
    return line.empty();
}

/// A server, or proxy, that asks for Digest authentication and keeps every line it is sent.
class Witness {
public:
    std::string url() const { return server_->url(); }

    /// "short requests, as asked for", or what nobody asked for. The client must be gone.
    std::string seen() {
        server_.reset();
        std::size_t heads = 0;
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = text_.find("\r\n", begin)) != std::string::npos;
             begin = end + 2) {
            const std::string line = text_.substr(begin, end - begin);
            if (!askedFor(line)) return "a line '" + line + "'";
            if (line.empty()) ++heads;
        }
        if (begin != text_.size()) return "bytes behind the requests";
        return fmt::format("{} {}, as asked for", text_.size() > huge ? "long" : "short",
                           heads == requests_ ? "requests" : "requests too many");
    }

private:
    void serve(Socket& socket) {
        for (int i = 0; i < 2; ++i) {
            const std::string request = readRequest(socket);
            if (request.empty()) return;
            text_ += request;
            ++requests_;
            const bool proxy = request.rfind("CONNECT", 0) == 0;
            const bool authorized = request.find("uthorization: Digest") != std::string::npos;
            const std::string challenge =
                R"(Authenticate: Digest realm="r", nonce="n", qop="auth")";
            write(socket, authorized
                              ? "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"
                              : (proxy ? "HTTP/1.1 407 No\r\nProxy-" : "HTTP/1.1 401 No\r\nWWW-") +
                                    challenge + "\r\nContent-Length: 0\r\n\r\n");
        }
    }

    std::string text_;
    std::size_t requests_ = 0;
    std::optional<ScriptedServer> server_{std::in_place, [this](Socket& socket) { serve(socket); }};
};

/// What came of a request, what the server saw of it, and what the log says.
std::string sent(const std::string& origin, const Change& change) {
    Witness witness;
    std::string came;
    std::string reported;
    {
        Exchange host;
        RequestConfig config = test::requestOf(witness.url());
        change(config);
        const std::string outcome = host.perform(config);
        came = andServes(host, origin, outcome[0] == '<' ? outcome : outcome.substr(0, 3));
        for (const auto& line : host.logger.lines("left out")) {
            reported += line.find("s3cret") == std::string::npos ? ", reported" : ", betrayed";
        }
    }
    return came + ", " + witness.seen() + reported;
}

/// A server that redirects to another one, with a line break in the user that it gives for it.
std::string redirected(const std::string& origin) {
    Witness witness;
    {
        const std::string there = witness.url().insert(7, "u%0D%0AX-Not-Asked:evil@");
        const ScriptedServer server(
            "HTTP/1.1 302 Found\r\nContent-Length: 0\r\nLocation: " + there + "\r\n\r\n");
        Exchange host;
        andServes(host, origin, host.perform("-u u:s3cret " + server.url()));
    }
    return witness.seen();
}

/// Cut at its NUL, the path would name the very authority that the server needs.
std::string cutPath(const std::string& origin) {
    const TlsServers tls;
    Exchange host;
    RequestConfig config = test::requestOf(tls.local().url("/hello"));
    config.ca_file = tls.certificates().file("root.pem") + std::string("\0x", 2);
    return andServes(host, origin, host.perform(config));
}

std::string throughProxy(const std::string& origin, const std::string& user) {
    Witness witness;
    std::string reported;
    {
        Exchange host;
        host.engine.setProxyConfig(witness.url(), user, "s3cret");
        host.perform("http://device.example/");
        host.engine.setProxyConfig("", "", "");
        reported = andServes(
            host, origin, host.logger.lines("contains CR, LF or NUL").empty() ? "" : ", reported");
    }
    return witness.seen() + reported;
}

}  // namespace

Faults hostileInput(const std::string& origin) {
    const std::string line = "\r\nX-Not-Asked: evil";
    const std::string request = "\r\n\r\nGET /not-asked HTTP/1.1\r\nHost: evil\r\n\r\n";
    const std::string nul("X-Asked\0evil", 12);
    const std::string as_asked = "401, short requests, as asked for";
    const std::string left_out = as_asked + ", reported";
    const std::string invalid =
        "<Invalid URL> URL using bad/illegal format or missing URL, short requests, as asked for";
    const auto header = [](const std::string& name, const std::string& value) -> Change {
        return [=](RequestConfig& config) { config.headers.emplace(name, value); };
    };
    const auto credentials = [](const std::string& user, const std::string& password) -> Change {
        return [=](RequestConfig& config) {
            config.user = user;
            config.password = password;
        };
    };
    const auto url = [](const std::string& rest) -> Change {
        return [=](RequestConfig& config) { config.url += rest; };
    };
    struct Row {
        std::string injected;
        std::string expected;
        Change change;
    };
    const std::vector<Row> rows = {
        {"a header line in a header's value", left_out, header("X-Asked", "a" + line)},
        {"a request in a header's value", left_out, header("X-Asked", "a" + request)},
        {"a bare LF in a header's value", left_out, header("X-Asked", "a\nX-Not-Asked: evil")},
        {"a header line in a header's name", left_out, header("X-Asked: a" + line, "b")},
        {"NUL in a header's name", left_out, header(nul, "b")},
        {"NUL in a header's value", left_out, header("X-Asked", nul)},
        {"a header's name that continues the line before", left_out, header(" X-Not-Asked", "b")},
        {"100 KB in a header's value", "401, long requests, as asked for",
         header("X-Asked", std::string(huge, 'v'))},
        {"100 KB in a header's name", "401, long requests, as asked for",
         header("X-Asked: " + std::string(huge, 'n'), "v")},
        {"a header line in the user, Digest", left_out, credentials("u" + line, "s3cret")},
        {"a header line in the password, Digest", left_out, credentials("u", "p" + line)},
        {"NUL in the user", left_out, credentials(nul, "s3cret")},
        {"100 KB in the user, Digest", "200, long requests, as asked for",
         credentials(std::string(huge, 'u'), "s3cret")},
        {"a header line in the URL's path", invalid, url(" HTTP/1.1" + line)},
        {"a header line in the URL's query", invalid, url("?" + line)},
        {"NUL in the URL", invalid, url(nul)},
        {"a header line, encoded, in the URL's user, Basic", as_asked,
         [](RequestConfig& config) { config.url.insert(7, "u%0D%0AX-Not-Asked:evil@"); }},
        {"100 KB in the URL's path", "401, long requests, as asked for",
         url(std::string(huge, 'p'))},
        {"a method that is none", as_asked,
         [](RequestConfig& config) { config.method = static_cast<zel::http::Method>(77); }},
    };
    Faults faults;
    for (const Row& row : rows) {
        faults.push_back({row.injected, row.expected,
                          [origin, change = row.change] { return sent(origin, change); }});
    }
    faults.push_back({"NUL in the path of the authorities",
                      "<Protocol failure> SSL peer certificate or SSH remote key was not OK",
                      [=] { return cutPath(origin); }});
    faults.push_back({"a header line in the user of a redirect, Digest",
                      "short requests, as asked for", [=] { return redirected(origin); }});
    faults.push_back({"a header line in the proxy's user, Digest",
                      "short requests, as asked for, reported",
                      [=] { return throughProxy(origin, "u" + line); }});
    return faults;
}

}  // namespace test

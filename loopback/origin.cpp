#include "loopback/origin.h"

#include <algorithm>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <utility>

namespace loopback {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

using TlsStream = beast::ssl_stream<beast::tcp_stream>;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

constexpr std::string_view private_credentials = "Basic ZGV2aWNlOnNlY3JldDp3b3Jk";

/// A request target split as "/route/argument?query".
struct Target {
    std::string_view route;
    std::string_view argument;
    std::string_view query;
};

Target split(std::string_view text) {
    Target target;
    if (const auto mark = text.find('?'); mark != std::string_view::npos) {
        target.query = text.substr(mark + 1);
        text = text.substr(0, mark);
    }
    const auto slash = text.find('/', 1);
    target.route = text.substr(0, slash);
    if (slash != std::string_view::npos) target.argument = text.substr(slash + 1);
    return target;
}

unsigned number(std::string_view text, unsigned otherwise) {
    unsigned value = otherwise;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

bool has(const Target& target, std::string_view word) {
    return target.query.find(word) != std::string_view::npos;
}

Response redirect(const Target& target) {
    const unsigned left = number(target.argument, 1);
    Response response;
    const auto status = target.query.find("status=");
    response.result(
        status == std::string_view::npos ? 302 : number(target.query.substr(status + 7), 302));
    std::string location = target.argument == "mirror" ? "/mirror" : "/echo";
    if (left > 1) location = "/redirect/" + std::to_string(left - 1);
    if (!target.query.empty()) location.append("?").append(target.query);
    response.set(http::field::location, location);
    response.set("X-Hop", std::to_string(left));
    response.body() = "moved\n";
    return response;
}

Response authenticate(const Request& request) {
    Response response;
    const auto given = request[http::field::authorization];
    if (std::string_view(given.data(), given.size()) == private_credentials) {
        response.body() = "welcome, " + std::string(request.method_string()) + " of " +
                          std::to_string(request.body().size()) + " bytes\n";
    } else {
        response.result(401);
        response.set(http::field::www_authenticate, "Basic realm=\"device\"");
        response.set("X-Hop", "challenge");
        response.body() = "who are you?\n";
    }
    return response;
}

Response answer(const Request& request, const Target& target) {
    Response response;
    response.set(http::field::content_type, "text/plain");
    if (target.route == "/hello") {
        response.body() = "hello\n";
    } else if (target.route == "/echo") {
        response.set("X-Method", request.method_string());
        response.set("X-Hop", "end");
        response.body() = request.body();
        response.set(http::field::content_type, request[http::field::content_type]);
    } else if (target.route == "/mirror") {
        std::ostringstream text;
        text << request;
        response.body() = text.str();
    } else if (target.route == "/status") {
        response.result(number(target.argument, 200));
        response.set(http::field::content_type, "text/html");
        const auto code = response.result_int();
        if (code != 204 && code != 304) {
            response.body() = "status " + std::to_string(code) + "\n";
        }
    } else if (target.route == "/bytes") {
        response.body() = bodyOf(number(target.argument, 0));
    } else if (target.route == "/cookie") {
        response.set(http::field::set_cookie, "visit=1");
    } else if (target.route == "/together") {
        response.body() = "together\n";
    } else if (target.route == "/redirect") {
        return redirect(target);
    } else if (target.route == "/loop") {
        response.result(302);
        response.set(http::field::location, "/loop");
    } else if (target.route == "/private") {
        return authenticate(request);
    } else {
        response.result(404);
        response.body() = "nothing here\n";
    }
    return response;
}

void frame(Response& response, const Request& request, const Target& target) {
    response.version(11);
    response.keep_alive(request.keep_alive() && !has(target, "close"));
    if (has(target, "chunked")) {
        response.chunked(true);
    } else if (!has(target, "close")) {
        response.prepare_payload();
    }
}

/// One connection. Its pending operation owns it, so it ends when no operation is pending.
template <typename Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
public:
    template <typename... Arguments>
    explicit Connection(std::vector<std::function<void()>>& gathered, Arguments&&... arguments)
        : gathered_(gathered), stream_(std::forward<Arguments>(arguments)...) {}

    void start() {
        if constexpr (std::is_same_v<Stream, TlsStream>) {
            stream_.async_handshake(asio::ssl::stream_base::server,
                                    [self = this->shared_from_this()](beast::error_code error) {
                                        if (!error) self->read();
                                    });
        } else {
            read();
        }
    }

private:
    void read() {
        parser_.emplace();
        parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
        http::async_read(stream_, buffer_, *parser_,
                         [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                             if (!error) self->handle();
                         });
    }

    void handle() {
        request_ = parser_->release();
        const std::string text(request_.target());
        const Target target = split(text);
        if (target.route == "/silence") {
            waitForClose();
            return;
        }
        response_ = answer(request_, target);
        frame(response_, request_, target);
        if (target.route == "/together") {
            gather(number(target.argument, 1));
        } else {
            respond();
        }
    }

    void gather(std::size_t enough) {
        gathered_.emplace_back([self = this->shared_from_this()] { self->respond(); });
        if (gathered_.size() < enough) return;
        for (const auto& respond : std::exchange(gathered_, {})) respond();
    }

    void respond() {
        serializer_.emplace(response_);
        http::async_write(stream_, *serializer_,
                          [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                              if (error) return;
                              if (self->response_.keep_alive()) {
                                  self->read();
                              } else {
                                  self->end();
                              }
                          });
    }

    /// Over TLS sends a close_notify: it shows that a body without a declared length is complete.
    void end() {
        if constexpr (std::is_same_v<Stream, TlsStream>) {
            stream_.async_shutdown([self = this->shared_from_this()](beast::error_code) {});
        } else {
            beast::error_code ignored;
            stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        }
    }

    void waitForClose() {
        stream_.async_read_some(
            buffer_.prepare(1),
            [self = this->shared_from_this()](beast::error_code /*gone*/, std::size_t) {});
    }

    std::vector<std::function<void()>>& gathered_;
    Stream stream_;
    beast::flat_buffer buffer_;
    boost::optional<http::request_parser<http::string_body>> parser_;
    Request request_;
    Response response_;
    boost::optional<http::response_serializer<http::string_body>> serializer_;
};

}  // namespace

Origin::Origin(std::shared_ptr<asio::ssl::context> tls)
    : tls_(std::move(tls)),
      acceptor_(loop_, {asio::ip::address_v4::loopback(), 0}),
      port_(acceptor_.local_endpoint().port()) {
    accept();
    thread_ = std::thread([this] { loop_.run(); });
}

Origin::~Origin() {
    loop_.stop();
    thread_.join();
}

std::string Origin::url(const std::string& target) const {
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + target;
}

void Origin::accept() {
    acceptor_.async_accept([this](beast::error_code error, tcp::socket socket) {
        if (!error) {
            socket.set_option(tcp::no_delay(true));
            if (tls_) {
                std::make_shared<Connection<TlsStream>>(gathered_, std::move(socket), *tls_)
                    ->start();
            } else {
                std::make_shared<Connection<beast::tcp_stream>>(gathered_, std::move(socket))
                    ->start();
            }
        }
        accept();
    });
}

std::string bodyOf(std::size_t length) {
    constexpr std::size_t period = 65521;  // a prime, so that it lines up with no buffer
    static const std::string block = [] {
        std::minstd_rand random;
        std::string bytes(period, '\0');
        std::generate(bytes.begin(), bytes.end(),
                      [&] { return static_cast<char>(random() >> 16); });
        return bytes;
    }();
    std::string body;
    body.reserve(length);
    while (body.size() < length) body.append(block, 0, length - body.size());
    return body;
}

unsigned short closedPort() {
    asio::io_context loop;
    const tcp::acceptor acceptor(loop, {asio::ip::address_v4::loopback(), 0});
    return acceptor.local_endpoint().port();
}

}  // namespace loopback

// Boost.Beast, asynchronous, one thread: a connection for each request in flight, kept alive.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "load.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

struct Target {
    bool tls;
    asio::ip::tcp::endpoint endpoint;
    std::string host;
    std::string path;

    /// Of a URL with an address and a port.
    static Target of(const std::string& url) {
        const auto begin = url.find("://") + 3;
        const auto slash = url.find('/', begin);
        const auto colon = url.find(':', begin);
        const std::string host = url.substr(begin, slash - begin);
        const auto port = static_cast<unsigned short>(std::stoi(url.substr(colon + 1)));
        return {url.rfind("https", 0) == 0,
                {asio::ip::make_address(url.substr(begin, colon - begin)), port},
                host,
                url.substr(slash)};
    }
};

class Pool;

template <typename Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
public:
    template <typename... Arguments>
    Connection(Pool& pool, const Target& target, Arguments&&... arguments)
        : pool_(pool), target_(target), stream_(std::forward<Arguments>(arguments)...) {}

    void start(std::size_t id);

private:
    void connect();
    void send();
    void receive();
    void finish(bool ok);
    auto next(void (Connection::*step)()) {
        return [self = this->shared_from_this(), step](beast::error_code error, auto&&...) {
            if (error) {
                self->finish(false);
            } else {
                ((*self).*step)();
            }
        };
    }

    Pool& pool_;
    Target target_;
    Stream stream_;
    bool connected_ = false;
    std::size_t id_ = 0;
    beast::flat_buffer buffer_;
    http::request<http::string_body> request_;
    std::optional<http::response_parser<http::string_body>> parser_;
};

using Plain = Connection<beast::tcp_stream>;
using Secure = Connection<beast::ssl_stream<beast::tcp_stream>>;

class Pool {
public:
    explicit Pool(bench::Load& load) : load_(load) {
        if (!load.work().ca_file.empty()) tls_.load_verify_file(load.work().ca_file);
        tls_.set_verify_mode(asio::ssl::verify_peer);
    }

    void start(std::size_t id, const std::string& url) {
        const Target target = Target::of(url);
        if (target.tls) {
            connection(secure_[url], target, context_, tls_)->start(id);
        } else {
            connection(plain_[url], target, context_)->start(id);
        }
    }
    void run() { context_.run(); }

    bench::Load& load() { return load_; }
    void finished(const std::shared_ptr<Plain>& connection, const std::string& url, bool reusable) {
        if (reusable) plain_[url].push_back(connection);
    }
    void finished(const std::shared_ptr<Secure>& connection, const std::string& url,
                  bool reusable) {
        if (reusable) secure_[url].push_back(connection);
    }
    void report(std::size_t id, bool ok) {
        load_.finished(id, ok);
        if (load_.over()) context_.stop();
    }

private:
    template <typename Kind, typename... Arguments>
    std::shared_ptr<Kind> connection(std::vector<std::shared_ptr<Kind>>& idle, const Target& target,
                                     Arguments&... arguments) {
        if (idle.empty()) return std::make_shared<Kind>(*this, target, arguments...);
        auto found = std::move(idle.back());
        idle.pop_back();
        return found;
    }

    bench::Load& load_;
    asio::io_context context_{1};
    asio::ssl::context tls_{asio::ssl::context::tls_client};
    std::map<std::string, std::vector<std::shared_ptr<Plain>>> plain_;
    std::map<std::string, std::vector<std::shared_ptr<Secure>>> secure_;
};

template <typename Stream>
void Connection<Stream>::start(std::size_t id) {
    id_ = id;
    const bench::Work& work = pool_.load().work();
    request_ = {http::string_to_verb(work.method), target_.path, 11};
    request_.set(http::field::host, target_.host);
    request_.set(http::field::user_agent, "beast");
    if (work.method != "GET") {
        request_.body() = pool_.load().body();
        request_.prepare_payload();
    }
    parser_.emplace();
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
    if (connected_) {
        send();
    } else {
        connect();
    }
}

template <typename Stream>
void Connection<Stream>::connect() {
    connected_ = true;
    auto& socket = beast::get_lowest_layer(stream_);
    if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
        socket.async_connect(target_.endpoint, next(&Connection::send));
    } else {
        stream_.set_verify_callback(
            asio::ssl::host_name_verification(target_.endpoint.address().to_string()));
        socket.async_connect(target_.endpoint, [self = this->shared_from_this()](auto error) {
            if (error) return self->finish(false);
            self->stream_.async_handshake(asio::ssl::stream_base::client,
                                          self->next(&Connection::send));
        });
    }
}

template <typename Stream>
void Connection<Stream>::send() {
    http::async_write(stream_, request_, next(&Connection::receive));
}

template <typename Stream>
void Connection<Stream>::receive() {
    http::async_read(stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                         self->finish(!error);
                     });
}

template <typename Stream>
void Connection<Stream>::finish(bool ok) {
    const auto& response = parser_->get();
    const std::string url = (target_.tls ? "https://" : "http://") + target_.host + target_.path;
    const bool right = ok && response.result_int() == 200 &&
                       response.body().size() == pool_.load().work().expected_size;
    pool_.finished(this->shared_from_this(), url, ok && response.keep_alive());
    pool_.report(id_, right);
}

}  // namespace

int main(int argc, char** argv) {
    bench::Load load("beast", argc, argv);
    Pool pool(load);
    load.begin([&](std::size_t id, const std::string& url) { pool.start(id, url); });
    pool.run();
    std::_Exit(load.report());
}

#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace loopback {

/// A small HTTP/1.1 origin on loopback, on a port of the kernel's choosing, with a thread of its
/// own. Ready when constructed; the destructor closes every connection. Its resources:
///
///     /hello            200 "hello\n"
///     /echo             200 with the request's body, its Content-Type, and its method in X-Method
///     /mirror           200 with the whole request as it came
///     /status/N         status N
///     /bytes/N          200 with `bodyOf(N)`; ?chunked and ?close leave out the length
///     /cookie           sets the cookie "visit"
///     /redirect/N       N redirects with status 302, or as ?status says, then /echo
///     /redirect/mirror  a redirect to /mirror
///     /loop             a redirect to itself
///     /private          200 for the user "device" with the password "secret:word", else 401
///     /silence          no answer until the client is gone
///     /together/N       no answer until N requests wait here, then 200 "together\n" to all of them
class Origin {
public:
    Origin() : Origin(nullptr) {}
    /// Over TLS with the certificate that `tls` holds.
    explicit Origin(std::shared_ptr<boost::asio::ssl::context> tls);
    Origin(const Origin&) = delete;
    Origin& operator=(const Origin&) = delete;
    ~Origin();

    unsigned short port() const { return port_; }
    /// The URL of a resource here.
    std::string url(const std::string& target) const;

private:
    void accept();

    std::shared_ptr<boost::asio::ssl::context> tls_;
    boost::asio::io_context loop_;
    /// Functions that send the responses which /together holds back.
    std::vector<std::function<void()>> gathered_;
    boost::asio::ip::tcp::acceptor acceptor_;
    unsigned short port_;
    std::thread thread_;
};

/// The body of /bytes/N: random bytes, the same in every run, so that a part that is lost, doubled
/// or misplaced shows.
std::string bodyOf(std::size_t length);

/// A port on which nobody listens: the kernel chose it for a listener that is closed again.
unsigned short closedPort();

}  // namespace loopback

#pragma once

#include <openssl/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "zel_http/export.h"
#include "zel_http/header_map.h"

/// The values that cross the library's boundary. Plain data: every record owns what it holds.
namespace zel::http {

/// The request's method; a redirect may turn a `POST` into a `GET`.
enum class Method : std::int32_t {
    POST = 0,
    PUT = 1,
    GET = 2,
    DELETE = 3,  ///< sent without a body
    PATCH = 4,
    GET_SYNC = 5,  ///< transferred as `GET`
};

/// How user and password are offered to the server: once it has answered 401, not before, and a
/// body is sent both times. A server that answers an unknown caller with anything else, a 404 say,
/// never sees them; it needs an Authorization line in `RequestConfig::headers`.
enum class AuthMethod : std::int32_t {
    BASIC = 0,
    ANY = 1,  ///< whatever the server offers, the strongest first
};

/// Why a transfer failed, as the engine tells a `Request`.
enum class Failure : std::int32_t {
    InvalidUrl = 0,
    DnsLookupFailure = 1,
    ProtocolFailure = 2,
    OperationTimedOut = 3,
    AuthenticationFailure = 4,
    ConnectionFailure = 5,
    HttpErrorCode = 6,
};

/// Why a request failed, as its caller sees it. A server's own 4xx or 5xx answer is no failure: it
/// is delivered as a `ResponseData` with that status.
enum class ClientFailure : std::int32_t {
    InvalidUrl = 0,
    DnsLookupFailure = 1,
    ProtocolFailure = 2,
    OperationTimedOut = 3,
    AuthenticationFailure = 4,
    ConnectionFailure = 5,
};

/// The description of one request. The library copies it when the request starts.
struct ZEL_HTTP_API RequestConfig {
    /// Every field takes the default below.
    RequestConfig();
    /// As above, then the given values; `headers` replaces the whole map, and `ca_file` becomes
    /// present even when it is empty: "" trusts nobody, and every https request fails.
    RequestConfig(Method method, const std::string& url, const HeaderMap& headers,
                  const std::string& body, std::chrono::milliseconds timeout,
                  const std::string& ca_file);

    Method method = Method::GET;  ///< decides whether `body` is sent
    /// The full URL, http or https. One with a control character fails as `InvalidUrl`.
    std::string url;
    /// Default: "Content-Type" = "text/xml; charset=utf-8". Replace it with
    /// `headers["Content-Type"] = ...`: `insert` and `emplace` keep what is there. Unless a
    /// "User-Agent" is given here the library sends its own. An empty value sends nothing and
    /// removes a default header of that name. A name or value with CR, LF or NUL is left out and
    /// reported in the log. Redirects: up to 5 are followed. Lines named Authorization and Cookie,
    /// and `user`, stay with the first host; every other header here is sent to each host on the
    /// way, also from https to http. `DELETE` and `PATCH` repeat on a 301, 302 and 303, `PATCH`
    /// then without its body.
    HeaderMap headers;
    /// Authentication is offered only when this is not empty. With CR, LF or NUL in one of them
    /// both are left out and reported in the log.
    std::string user;
    std::string password;                      ///< goes with `user`
    AuthMethod auth_method = AuthMethod::ANY;  ///< goes with `user`
    /// Any bytes. Sent for `POST`, `PUT` and `PATCH`. On a kept-alive connection that the server
    /// closes unanswered the request is sent again, `POST` included.
    std::string body;

    /// Verify the server's certificate chain and host name; not whether it has been revoked. This
    /// and the TLS fields below apply to https URLs: a redirect from http to https is verified by
    /// libcurl's own defaults. docs/security.md says more.
    bool tls_verify = true;
    /// PEM file of trusted authorities. Absent: the certificate store's default bundle. Empty:
    /// none, so nobody is trusted unless `ca_dir` names some.
    std::optional<std::string> ca_file;
    /// Directory of trusted authorities. Absent or empty: none.
    std::optional<std::string> ca_dir;
    /// Accept a chain that ends at any trusted certificate, not only at a root.
    bool tls_partial_chain = false;
    /// The client's own certificate and private key for mutual TLS, PEM files. Used only when both
    /// are given and readable. A redirect to another origin goes on without them. Files that are
    /// replaced count for new connections; the open ones go on with what they were made with.
    std::optional<std::string> own_cert;
    std::optional<std::string> own_pkey;  ///< goes with `own_cert`
    /// An OpenSSL verify callback (pre-verification result, store context; non-zero accepts), run
    /// on the engine thread. It must hold a plain function `int (*)(int, X509_STORE_CTX*)`: with
    /// anything else the transfer fails. It must not throw: OpenSSL calls it. To accept what
    /// OpenSSL refused it must also clear the error: `X509_STORE_CTX_set_error(context,
    /// X509_V_OK)`. With `tls_verify` off no authorities are loaded for it. It also decides on the
    /// certificate of an https proxy. Such a request never shares a connection with another, so
    /// each costs a handshake.
    std::function<int(int, X509_STORE_CTX*)> verifier;
    /// Data for `verifier`: its characters, NUL-terminated, stand in the `SSL_CTX` ex-data slot
    /// `certificate::sslctx_data_index()`.
    std::optional<std::string> verifier_data;

    /// @{
    /// Carried along and shown in the log; no transfer setting depends on it.
    bool enable_cookies = true;
    bool read_cookies = false;
    bool write_cookies = false;
    /// @}
    /// Start clean: new cookie session, no reused connection, no cached name look-up.
    bool reset_state = false;
    /// Expect an X-Auth cookie on the request, and the same domain in it afterwards. A fault is
    /// logged; nothing fails.
    bool xauth_required = false;
    /// Expect the response's X-Auth domain to occur in `xauth_expected_domain`. A fault is logged.
    bool xauth_check_domain = false;
    /// Written by the engine, in its own copy, just before the transfer.
    std::string xauth_previous_domain;
    std::string xauth_expected_domain;  ///< what `xauth_check_domain` looks into

    /// The most body bytes accepted, -1 for no limit. A longer body fails the request; with 0 any
    /// body does that has a byte. With libcurl 7.88 a 302's or 401's page on the way that
    /// declares more fails it too. A host's own `Request`: docs/failures.md.
    std::int32_t max_download_size = -1;
    /// For the whole transfer, redirects and pauses included; 0 for none. A negative limit counts
    /// as 1 ms.
    std::chrono::milliseconds timeout{0};
};

/// The answer of a server, whatever its status.
struct ResponseData {
    std::uint32_t status = 0;  ///< 100 to 599
    /// The fields of every response on the way (redirects, authentication); of several with one
    /// name the first received. A line that ends in a bare LF is no field.
    HeaderMap headers;
    std::string body;  ///< as received, of the last response
};

/// Why no answer came.
struct ErrorData {
    ClientFailure failure = ClientFailure::ProtocolFailure;  ///< what to decide by
    /// A description for people; may be empty.
    std::string message;
};

/// What of a request and its outcome may be logged, and how it is masked first. Empty filters
/// change nothing.
struct LogFilter {
    /// Which lines are written at all.
    enum class Payload : std::int32_t {
        Full = 0,           ///< everything
        None = 1,           ///< not a line
        RequestBodies = 2,  ///< response bodies only on a status outside 2xx or at log level 9
        Verbose = 3,        ///< as above, and request bodies only at log level 9
    };
    /// @{
    /// As the enumerator.
    static constexpr Payload Full = Payload::Full;
    static constexpr Payload None = Payload::None;
    static constexpr Payload RequestBodies = Payload::RequestBodies;
    static constexpr Payload Verbose = Payload::Verbose;
    /// @}

    /// @{
    /// Gets what would be logged and returns what is. Runs on the client's thread, also when no
    /// line is written in the end.
    std::function<std::string(const std::string&)> url_filter;
    std::function<std::string(const std::string&)> request_body_filter;
    std::function<std::string(const std::string&)> response_body_filter;
    std::function<HeaderMap(const HeaderMap&)> headers_filter;
    /// @}
    Payload payload = Payload::Full;  ///< for all lines of the request and its outcome
};

/// @{
/// Writes the value's name, nothing for a value without one.
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const Method& method);
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const AuthMethod& method);
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const Failure& failure);
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const ClientFailure& failure);
/// @}

/// Writes the configuration as labelled lines for a log: no user, password, header value or body.
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const RequestConfig& config);

namespace protocol {

/// 100 to 599.
ZEL_HTTP_API bool valid_status(long status);
/// 100 to 399.
ZEL_HTTP_API bool success_status(unsigned int status);
/// 401, 403 and 407.
ZEL_HTTP_API bool auth_failure(unsigned int status);

}  // namespace protocol

}  // namespace zel::http

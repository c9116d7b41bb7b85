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

/// How user and password are sent. libcurl sends them only after a 401, so that a body is sent
/// twice. A server that answers an unknown caller with another status, such as 404, never gets
/// them; it needs an Authorization line in `RequestConfig::headers`.
enum class AuthMethod : std::int32_t {
    BASIC = 0,
    ANY = 1,  ///< the strongest method that the server offers
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
    /// and `user`, stay with the first host; every other header here is sent to each host
    /// that they lead to, also from https to http. `DELETE` and `PATCH` repeat on a 301, 302 and
    /// 303, `PATCH` then without its body.
    HeaderMap headers;
    /// Credentials are sent only when this is not empty. When it or `password` contains CR, LF or
    /// NUL, both are left out and reported in the log.
    std::string user;
    std::string password;                      ///< goes with `user`
    AuthMethod auth_method = AuthMethod::ANY;  ///< goes with `user`
    /// Any bytes. Sent for `POST`, `PUT` and `PATCH`. When the server closes a kept-alive
    /// connection without an answer, libcurl sends the request again, `POST` included.
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
    /// are given and readable. A redirect to another origin is followed without them. Replaced
    /// files apply to new connections; open connections stay as they are.
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
    /// Data for `verifier`, which finds a pointer to the NUL-terminated text in the `SSL_CTX`
    /// ex-data slot `certificate::sslctx_data_index()`.
    std::optional<std::string> verifier_data;

    /// @{
    /// Shown in the log; the transfer does not depend on it.
    bool enable_cookies = true;
    bool read_cookies = false;
    bool write_cookies = false;
    /// @}
    /// Start clean: the host's cookies are deleted, the cookie session is new, no connection, no
    /// cached name look-up and no TLS session is reused.
    bool reset_state = false;
    /// Log a critical line when there is no X-Auth cookie to send and, with `xauth_check_domain`,
    /// an error line when `Request::xauthCookieDomain` then has another domain. The request does
    /// not fail.
    bool xauth_required = false;
    /// Log an error line when the response's `Request::xauthCookieDomain` does not occur in
    /// `xauth_expected_domain`. The request does not fail.
    bool xauth_check_domain = false;
    /// The domain of the X-Auth cookie to send; written by the engine, in its own copy.
    std::string xauth_previous_domain;
    std::string xauth_expected_domain;  ///< see `xauth_check_domain`

    /// The longest body accepted, in bytes; -1 for no limit, 0 for empty bodies only. A longer body
    /// fails the request. So does an intermediate response, such as a 302 or 401, that declares a
    /// longer one. For a host's own `Request` see docs/failures.md.
    std::int32_t max_download_size = -1;
    /// For the whole transfer, redirects and pauses included; 0 for none. A negative limit counts
    /// as 1 ms.
    std::chrono::milliseconds timeout{0};
};

/// The answer of a server, whatever its status.
struct ResponseData {
    std::uint32_t status = 0;  ///< 100 to 599
    /// The header fields of all responses to the request, redirects and authentication included; of
    /// several with one name the first received. A line that ends in LF without CR is ignored.
    HeaderMap headers;
    std::string body;  ///< as received, of the last response
};

/// Why no answer came, or no whole one, or one that is larger than allowed.
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
    /// Short for the enumerator.
    static constexpr Payload Full = Payload::Full;
    static constexpr Payload None = Payload::None;
    static constexpr Payload RequestBodies = Payload::RequestBodies;
    static constexpr Payload Verbose = Payload::Verbose;
    /// @}

    /// @{
    /// Receives what would be logged and returns what to log instead. Runs on the client's thread,
    /// even when the line is not written in the end.
    std::function<std::string(const std::string&)> url_filter;
    std::function<std::string(const std::string&)> request_body_filter;
    std::function<std::string(const std::string&)> response_body_filter;
    std::function<HeaderMap(const HeaderMap&)> headers_filter;
    /// @}
    Payload payload = Payload::Full;  ///< for all lines of the request and its outcome
};

/// @{
/// Writes the value's name; nothing for a value outside the enumeration.
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

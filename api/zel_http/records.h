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

/// The structures that you give to the library and get from it. Plain data: each owns all that it
/// holds.
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

/// How user and password are sent. libcurl first sends the request without them, and again with
/// them after a 401; a body is then sent twice. A server that answers an unknown caller with
/// another status, such as 404, never gets them: set a header Authorization for it yourself, in
/// `RequestConfig::headers`.
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
    /// Sets every field to the default that stands with it.
    RequestConfig();
    /// Sets the given fields, and all others to their defaults. `headers` replaces the whole map,
    /// the default Content-Type too. `ca_file` is always set: with "" nobody is trusted, and every
    /// https request fails.
    RequestConfig(Method method, const std::string& url, const HeaderMap& headers,
                  const std::string& body, std::chrono::milliseconds timeout,
                  const std::string& ca_file);

    Method method = Method::GET;  ///< decides whether `body` is sent
    /// The full URL, http or https. One with a control character fails as `InvalidUrl`.
    std::string url;
    /// Default: "Content-Type" = "text/xml; charset=utf-8". Replace it with
    /// `headers["Content-Type"] = ...`: `insert` and `emplace` keep the value that is there. If you
    /// set no "User-Agent", the library sends its own. A header with an empty value is not sent,
    /// and the default header of that name is not sent either. A header whose name or value
    /// contains CR, LF or NUL, or whose name begins with a blank, is not sent, and the log says so.
    ///
    /// Up to 5 redirects are followed. Only the first host gets the headers Authorization and
    /// Cookie, and `user` and `password`. Every other header is sent to each host that redirects
    /// lead to, also from https to http. After a 301, 302 or 303 a `DELETE` and a `PATCH` keep
    /// their method, but the `PATCH` is sent without its body.
    HeaderMap headers;
    /// Empty: neither user nor password is sent. When one of them contains CR, LF or NUL, neither
    /// is sent, and the log says so.
    std::string user;
    std::string password;                      ///< used only with `user`
    AuthMethod auth_method = AuthMethod::ANY;  ///< used only with `user`
    /// Any bytes. Sent for `POST`, `PUT` and `PATCH`. When the server closes a kept-alive
    /// connection without an answer, libcurl sends the request again, `POST` included.
    std::string body;

    /// Whether the server's certificate chain and host name are verified. Whether a certificate has
    /// been revoked is never checked. This field and the TLS fields below apply only if `url` is an
    /// https URL: after a redirect from http to https, libcurl verifies by its own defaults.
    /// docs/security.md says more.
    bool tls_verify = true;
    /// The PEM file of the authorities that you trust. Not set: the default file of the certificate
    /// store (`certificate::ca_path`). Empty text: no file, so that only authorities in `ca_dir`
    /// are trusted.
    std::optional<std::string> ca_file;
    /// A directory with more authorities that you trust. Not set, or an empty text: none.
    std::optional<std::string> ca_dir;
    /// Whether a chain may end at any certificate that you trust, not only at a root.
    bool tls_partial_chain = false;
    /// The PEM files of your own certificate and private key, for mutual TLS. They are used only if
    /// both are set and readable. After a redirect to another origin they are not used. When you
    /// replace the files, new connections use the new ones; open connections stay as they are.
    std::optional<std::string> own_cert;
    std::optional<std::string> own_pkey;  ///< used only with `own_cert`
    /// Your own function that judges the certificates of the server, as OpenSSL's verify callbacks
    /// do: it gets OpenSSL's result and the store context, and accepts by any value but 0. It runs
    /// on the engine thread and must not throw, since OpenSSL, which is C, calls it. Set it to a
    /// plain function `int (*)(int, X509_STORE_CTX*)`: with anything else, a lambda for example,
    /// the transfer fails. To accept what OpenSSL has refused it must also clear the error:
    /// `X509_STORE_CTX_set_error(context, X509_V_OK)`. With `tls_verify` off no authorities are
    /// loaded for it. It also judges the certificate of an https proxy. A request with a verifier
    /// never shares a connection with another, so each needs a handshake of its own.
    std::function<int(int, X509_STORE_CTX*)> verifier;
    /// A text for `verifier`. The function gets a pointer to it, ended by NUL, from
    /// `SSL_CTX_get_ex_data` with the index `certificate::sslctx_data_index()`.
    std::optional<std::string> verifier_data;

    /// @{
    /// Only shown in the log. It changes nothing in the transfer.
    bool enable_cookies = true;
    bool read_cookies = false;
    bool write_cookies = false;
    /// @}
    /// Whether the request uses nothing of earlier ones: the cookies of its host are deleted, a new
    /// cookie session begins, and no connection, no cached name look-up and no TLS session is used
    /// again.
    bool reset_state = false;
    /// Whether the log gets a critical line when there is no X-Auth cookie to send. If
    /// `xauth_check_domain` is set, too, it also gets an error line when
    /// `Request::xauthCookieDomain` differs from `xauth_previous_domain` at the end of the
    /// transfer. The request does not fail.
    bool xauth_required = false;
    /// Whether the log gets an error line when `xauth_expected_domain` does not contain the text
    /// that `Request::xauthCookieDomain` returns at the end of the transfer. The request does not
    /// fail.
    bool xauth_check_domain = false;
    /// The domain of the X-Auth cookie that is sent. The engine writes it, into the request's own
    /// copy of the configuration; what you set is not used.
    std::string xauth_previous_domain;
    std::string xauth_expected_domain;  ///< see `xauth_check_domain`

    /// The longest body that is accepted, in bytes: -1 for no limit, 0 for empty bodies only. With
    /// a longer body the request fails. If the limit is above 0, so it does when an intermediate
    /// response, such as a 302 or 401, declares a longer body. docs/failures.md says what holds for
    /// a `Request` of your own.
    std::int32_t max_download_size = -1;
    /// The limit for the whole transfer, redirects and pauses included. 0 is no limit; a negative
    /// one counts as 1 ms.
    std::chrono::milliseconds timeout{0};
};

/// The answer of a server, whatever its status.
struct ResponseData {
    std::uint32_t status = 0;  ///< 100 to 599
    /// The header fields of all responses to the request, those of redirects and of a 401 included.
    /// Of several fields with the same name you get the first that came. A line that ends in LF
    /// without CR is ignored.
    HeaderMap headers;
    std::string body;  ///< the body of the last response, as it came
};

/// Why no answer came, or no whole one, or one that is larger than allowed.
struct ErrorData {
    ClientFailure failure = ClientFailure::ProtocolFailure;  ///< for your program to decide by
    /// A description for people. It may be empty.
    std::string message;
};

/// Which lines a client may write to the log about a request and its outcome, and how their content
/// is masked first. A filter function that is not set changes nothing. The engine writes lines of
/// its own, which none of this changes: docs/logging.md.
struct LogFilter {
    /// Which lines the client writes.
    enum class Payload : std::int32_t {
        Full = 0,           ///< everything
        None = 1,           ///< no line; the filter functions are not called
        RequestBodies = 2,  ///< response bodies only for a status outside 2xx, or at log level 9
        Verbose = 3,        ///< as `RequestBodies`, and request bodies only at log level 9
    };
    /// @{
    /// `LogFilter::Full` is `LogFilter::Payload::Full`, and so on.
    static constexpr Payload Full = Payload::Full;
    static constexpr Payload None = Payload::None;
    static constexpr Payload RequestBodies = Payload::RequestBodies;
    static constexpr Payload Verbose = Payload::Verbose;
    /// @}

    /// @{
    /// Takes what would be logged and returns what is logged instead. It runs on the client's
    /// thread, even when the level of the line is off. A body filter runs only for a body that may
    /// be logged.
    std::function<std::string(const std::string&)> url_filter;
    std::function<std::string(const std::string&)> request_body_filter;
    std::function<std::string(const std::string&)> response_body_filter;
    std::function<HeaderMap(const HeaderMap&)> headers_filter;
    /// @}
    Payload payload = Payload::Full;  ///< for all lines of the request and its outcome
};

/// @{
/// Writes the name of the value, and nothing for a value that the enumeration does not have.
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const Method& method);
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const AuthMethod& method);
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const Failure& failure);
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const ClientFailure& failure);
/// @}

/// Writes the configuration for a log, as lines with labels. User, password, header fields and body
/// are left out.
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const RequestConfig& config);

namespace protocol {

/// True for 100 to 599.
ZEL_HTTP_API bool valid_status(long status);
/// True for 100 to 399.
ZEL_HTTP_API bool success_status(unsigned int status);
/// True for 401, 403 and 407.
ZEL_HTTP_API bool auth_failure(unsigned int status);

}  // namespace protocol

}  // namespace zel::http

#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "credentials.h"
#include "form.h"
#include "zel_http/engine.h"

namespace tool {

/// What libcurl is asked for beyond the library's own interface, by every transfer of a command
/// line.
struct EasySettings {
    std::string method;  ///< empty: that of the request
    bool head = false;
    bool follows_redirects = true;
    long most_redirects = 50;
    std::vector<std::string> header_lines;  ///< in place of the library's
    std::string user_agent;
    std::string range;  ///< "0-99"
    std::string referer;
    bool refers_to_redirects = false;  ///< after one, the Referer is the URL that led there
    std::string cookies;               ///< "name=value;other=value"
    std::vector<std::string> cookie_files;
    std::vector<FormPart> form;
    std::optional<std::string> upload_file;
    std::vector<std::string> resolve;     ///< as in --resolve
    std::optional<std::string> password;  ///< of a user without a name
    long authentication = CURLAUTH_BASIC;
    long http_version = CURL_HTTP_VERSION_NONE;
    long tls_version = CURL_SSLVERSION_DEFAULT;  ///< the lowest
    long ip_version = CURL_IPRESOLVE_WHATEVER;
    bool compressed = false;
    bool uses_proxy = false;  ///< for local servers, too
    bool uses_no_proxy = false;
    std::optional<std::string> direct_hosts;  ///< as in --noproxy, in place of the environment's
    bool tunnels = false;                     ///< through a proxy of the environment
    Credentials environment_proxy;            ///< for that proxy
    bool keeps_path = false;                  ///< with its dots
    std::chrono::milliseconds connect_timeout{0};
    std::uint64_t bytes_per_second = 0;
    bool tells_conversation = false;
    bool shows_secrets = false;

    /// Whether a header line is about this field.
    bool names(const std::string& field) const;
    bool asksForRange() const { return !range.empty() || names("Range"); }
};

/// Applies settings to the transfers of an engine that is made and destroyed while this exists.
/// There is one at a time.
class EasySetup {
public:
    /// Throws `std::runtime_error` when a file cannot be read.
    explicit EasySetup(const EasySettings& settings);
    EasySetup(const EasySetup&) = delete;
    EasySetup& operator=(const EasySetup&) = delete;
    ~EasySetup();

    /// @{
    /// Called on the engine thread before a transfer starts, the fields first.
    void applyFields(CURL* easy, const zel::http::RequestConfig& config);
    void apply(CURL* easy);
    /// @}
    static EasySetup* current();

private:
    /// A file that is sent as a body.
    struct Upload {
        int descriptor;
        curl_off_t at;
    };
    static std::size_t readUpload(char* buffer, std::size_t size, std::size_t count, void* upload);
    static int seekUpload(void* upload, curl_off_t offset, int origin);

    void applyRequest(CURL* easy);
    void applyConnection(CURL* easy) const;
    void applyUpload(CURL* easy);
    curl_mime* makeForm(CURL* easy) const;

    const EasySettings& settings_;
    curl_slist* header_lines_ = nullptr;
    curl_slist* resolve_ = nullptr;
    int upload_descriptor_ = -1;
    curl_off_t upload_size_ = 0;
    // Engine thread, until the engine is gone.
    std::vector<curl_slist*> resuming_lines_;
    std::deque<Upload> uploads_;
    std::vector<curl_mime*> forms_;
};

/// An engine whose transfers have the header fields of the current `EasySetup`, if there is one.
class FieldsEngine final : public zel::http::Engine {
public:
    using Engine::Engine;
    FieldsEngine(const FieldsEngine&) = delete;
    FieldsEngine& operator=(const FieldsEngine&) = delete;
    ~FieldsEngine() override { stop(); }
    void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request> request) override;
};

}  // namespace tool

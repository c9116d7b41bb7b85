// Sets options of libcurl that the library does not know. Defines the engine's hook that is called
// with the easy handle before the transfer starts.

#include "easy_setup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "conversation.h"
#include "zel_http/engine_hooks.h"

namespace tool {
namespace {

using boost::algorithm::iequals;

EasySetup* current_setup = nullptr;

curl_slist* listOf(const std::vector<std::string>& lines) {
    curl_slist* list = nullptr;
    for (const std::string& line : lines) list = curl_slist_append(list, line.c_str());
    return list;
}

}  // namespace

bool EasySettings::names(const std::string& field) const {
    return std::any_of(header_lines.begin(), header_lines.end(), [&](const std::string& line) {
        return iequals(line.substr(0, line.find_first_of(":;")), field);
    });
}

EasySetup::EasySetup(const EasySettings& settings)
    : settings_(settings),
      header_lines_(listOf(settings.header_lines)),
      resolve_(listOf(settings.resolve)) {
    current_setup = this;
    if (!settings.upload_file) return;
    upload_descriptor_ = open(settings.upload_file->c_str(), O_RDONLY | O_CLOEXEC);
    struct stat file {};
    if (upload_descriptor_ < 0 || fstat(upload_descriptor_, &file) != 0) {
        throw std::system_error(errno, std::generic_category(), *settings.upload_file);
    }
    upload_size_ = S_ISREG(file.st_mode) ? file.st_size : -1;
}

EasySetup::~EasySetup() {
    current_setup = nullptr;
    for (curl_mime* form : forms_) curl_mime_free(form);
    curl_slist_free_all(header_lines_);
    for (curl_slist* lines : resuming_lines_) curl_slist_free_all(lines);
    curl_slist_free_all(resolve_);
    if (upload_descriptor_ >= 0) close(upload_descriptor_);
}

EasySetup* EasySetup::current() { return current_setup; }

/// Replaces the library's fields, but for those by which a download resumes.
void EasySetup::applyFields(CURL* easy, const zel::http::RequestConfig& config) {
    curl_slist* lines = header_lines_;
    if (config.headers.count("Range") != 0) {
        std::vector<std::string> own = settings_.header_lines;
        for (const auto& [name, value] : config.headers) own.push_back(name + ": " + value);
        lines = listOf(own);
        resuming_lines_.push_back(lines);
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, lines);
}

void EasySetup::apply(CURL* easy) {
    applyRequest(easy);
    applyConnection(easy);
    if (settings_.tells_conversation) tellConversation(easy, settings_.shows_secrets);
}

void EasySetup::applyRequest(CURL* easy) {
    const EasySettings& settings = settings_;
    if (!settings.user_agent.empty()) {
        curl_easy_setopt(easy, CURLOPT_USERAGENT, settings.user_agent.c_str());
    }
    if (!settings.range.empty()) curl_easy_setopt(easy, CURLOPT_RANGE, settings.range.c_str());
    if (!settings.referer.empty()) {
        curl_easy_setopt(easy, CURLOPT_REFERER, settings.referer.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_AUTOREFERER, settings.refers_to_redirects ? 1L : 0L);
    if (!settings.cookies.empty()) {
        curl_easy_setopt(easy, CURLOPT_COOKIE, settings.cookies.c_str());
    }
    for (const std::string& file : settings.cookie_files) {
        curl_easy_setopt(easy, CURLOPT_COOKIEFILE, file.c_str());
    }
    if (!settings.form.empty()) {
        forms_.push_back(makeForm(easy));
        curl_easy_setopt(easy, CURLOPT_MIMEPOST, forms_.back());
    }
    if (settings.upload_file) applyUpload(easy);
    if (settings.head) curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    if (!settings.method.empty()) {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, settings.method.c_str());
    }
    if (settings.compressed) {
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        // What one read unpacks to must fit into what libcurl holds for a paused transfer, 64 MiB.
        constexpr long small = 16L * 1024;
        curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, small);
    }
}

void EasySetup::applyConnection(CURL* easy) const {
    const EasySettings& settings = settings_;
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, settings.follows_redirects ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, settings.most_redirects);
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, settings.authentication);
    if (settings.tls_version != CURL_SSLVERSION_DEFAULT) {
        curl_easy_setopt(easy, CURLOPT_SSLVERSION, settings.tls_version);
    }
    curl_easy_setopt(easy, CURLOPT_IPRESOLVE, settings.ip_version);
    if (settings.http_version != CURL_HTTP_VERSION_NONE) {
        curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, settings.http_version);
    }
    if (resolve_ != nullptr) curl_easy_setopt(easy, CURLOPT_RESOLVE, resolve_);
    if (settings.connect_timeout.count() != 0) {
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                         static_cast<long>(settings.connect_timeout.count()));
    }
    // libcurl goes by the environment then.
    if (settings.uses_proxy) curl_easy_setopt(easy, CURLOPT_NOPROXY, nullptr);
    if (settings.direct_hosts) {
        curl_easy_setopt(easy, CURLOPT_NOPROXY, settings.direct_hosts->c_str());
    }
    if (settings.uses_no_proxy) curl_easy_setopt(easy, CURLOPT_PROXY, "");
    if (settings.password) {
        curl_easy_setopt(easy, CURLOPT_USERNAME, "");
        curl_easy_setopt(easy, CURLOPT_PASSWORD, settings.password->c_str());
    }
    if (settings.tunnels) curl_easy_setopt(easy, CURLOPT_HTTPPROXYTUNNEL, 1L);
    if (const Credentials& own = settings.environment_proxy; !own.user.empty()) {
        curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, own.user.c_str());
        curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, own.password.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, settings.keeps_path ? 1L : 0L);
    const auto rate = static_cast<curl_off_t>(settings.bytes_per_second);
    curl_easy_setopt(easy, CURLOPT_MAX_RECV_SPEED_LARGE, rate);
    curl_easy_setopt(easy, CURLOPT_MAX_SEND_SPEED_LARGE, rate);
}

void EasySetup::applyUpload(CURL* easy) {
    uploads_.push_back({upload_descriptor_, 0});
    const curl_read_callback read = readUpload;
    const curl_seek_callback seek = seekUpload;
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, read);
    curl_easy_setopt(easy, CURLOPT_READDATA, &uploads_.back());
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, seek);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, &uploads_.back());
    curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, upload_size_);
    // With HTTP/2 libcurl before 8.14 may lose an answer that comes before the body is sent.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
}

std::size_t EasySetup::readUpload(char* buffer, std::size_t size, std::size_t count, void* upload) {
    auto& file = *static_cast<Upload*>(upload);
    const ssize_t got = pread(file.descriptor, buffer, size * count, file.at);
    if (got < 0) return CURL_READFUNC_ABORT;
    file.at += got;
    return static_cast<std::size_t>(got);
}

int EasySetup::seekUpload(void* upload, curl_off_t offset, int origin) {
    if (origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
    static_cast<Upload*>(upload)->at = offset;
    return CURL_SEEKFUNC_OK;
}

curl_mime* EasySetup::makeForm(CURL* easy) const {
    curl_mime* form = curl_mime_init(easy);
    for (const FormPart& part : settings_.form) addFormPart(easy, form, part);
    return form;
}

void FieldsEngine::addTlsConfig(void* curl, std::shared_ptr<zel::http::Request> request) {
    const auto& config = request->config;
    if (auto* setup = EasySetup::current()) setup->applyFields(curl, config);
    Engine::addTlsConfig(curl, std::move(request));
}

}  // namespace tool

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    if (auto* setup = tool::EasySetup::current()) setup->apply(easy);
    return curl_multi_add_handle(multi, easy);
}

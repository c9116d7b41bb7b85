#include "curl_transfer.h"

#include <algorithm>
#include <string_view>

namespace bench {

CurlTransfer::CurlTransfer(const Load& load, std::size_t id, const std::string& url)
    : easy(curl_easy_init()), id_(id) {
    const Work& work = load.work();
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS, CURLPROTO_HTTP | CURLPROTO_HTTPS);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
    setBody(load);
    headers_ = curl_slist_append(headers_, "Content-Type: text/xml; charset=utf-8");
    headers_ = curl_slist_append(headers_, "User-Agent: Velto/Dunmoreline");
    headers_ = curl_slist_append(headers_, "Accept-Charset: ISO-8859-1,utf-8");
    if (!load.body().empty()) headers_ = curl_slist_append(headers_, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_);
    setAuthorities(work);
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
}

CurlTransfer::~CurlTransfer() {
    curl_easy_cleanup(easy);
    curl_slist_free_all(headers_);
}

void CurlTransfer::setAuthorities(const Work& work) const {
    if (work.ca_file.empty()) return;
    curl_easy_setopt(easy, CURLOPT_CAINFO, work.ca_file.c_str());
    if (work.libcurl_authorities) return;
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1));
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN));
}

void CurlTransfer::setBody(const Load& load) {
    const Work& work = load.work();
    const auto size = static_cast<curl_off_t>(load.body().size());
    if (work.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
        curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, load.body().data());
    } else if (work.method == "PUT") {
        sent_ = load.body();
        curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(easy, CURLOPT_READFUNCTION, onRead);
        curl_easy_setopt(easy, CURLOPT_READDATA, this);
        curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, size);
    }
}

CurlTransfer& CurlTransfer::of(CURL* easy) {
    char* transfer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
    return *reinterpret_cast<CurlTransfer*>(transfer);
}

void CurlTransfer::finish(Load& load, CURLcode result) const {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    load.finished(id_, result == CURLE_OK ? status : 0, received_.size());
}

std::size_t CurlTransfer::onBody(char* data, std::size_t size, std::size_t count, void* transfer) {
    static_cast<CurlTransfer*>(transfer)->received_.append(data, size * count);
    return size * count;
}

std::size_t CurlTransfer::onHeader(char* data, std::size_t size, std::size_t count,
                                   void* transfer) {
    std::string_view line(data, size * count);
    const auto colon = line.find(": ");
    if (colon != std::string_view::npos) {
        line.remove_suffix(2);
        auto& fields = static_cast<CurlTransfer*>(transfer)->fields_;
        fields.emplace(line.substr(0, colon), line.substr(colon + 2));
    }
    return size * count;
}

std::size_t CurlTransfer::onRead(char* data, std::size_t size, std::size_t count, void* transfer) {
    auto& self = *static_cast<CurlTransfer*>(transfer);
    const std::size_t bytes = std::min(size * count, self.sent_.size() - self.position_);
    self.sent_.copy(data, bytes, self.position_);
    self.position_ += bytes;
    return bytes;
}

}  // namespace bench

#include "zel_http/records.h"

namespace zel::http {

RequestConfig::RequestConfig() : headers{{"Content-Type", "text/xml; charset=utf-8"}} {}

RequestConfig::RequestConfig(Method method, const std::string& url, const HeaderMap& headers,
                             const std::string& body, std::chrono::milliseconds timeout,
                             const std::string& ca_file)
    : method(method), url(url), headers(headers), body(body), ca_file(ca_file), timeout(timeout) {}

namespace protocol {

bool valid_status(long status) { return status >= 100 && status <= 599; }

bool success_status(unsigned int status) { return status >= 100 && status <= 399; }

bool auth_failure(unsigned int status) { return status == 401 || status == 403 || status == 407; }

}  // namespace protocol

}  // namespace zel::http

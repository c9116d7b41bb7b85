#include "work.h"

#include <array>
#include <functional>
#include <sstream>

#include <fmt/format.h>

#include "loopback/origin.h"

namespace test {
namespace {

using zel::http::Method;
using zel::http::RequestConfig;

RequestConfig get(const std::string& url) {
    RequestConfig config;
    config.url = url;
    return config;
}

/// Mostly small, now and then some hundred KiB.
std::size_t anySize(Random& random) { return random() % (random() % 8 == 0 ? 400000 : 3000); }

std::string answer(unsigned status, const std::string& body) {
    return std::to_string(status) + " " + digestOf(body);
}

Work upload(const Targets& targets, Random& random) {
    constexpr std::array<Method, 3> methods = {Method::POST, Method::PUT, Method::PATCH};
    RequestConfig config = get((random() % 3 == 0 ? targets.tls_origin : targets.origin) + "/echo");
    config.ca_file = targets.authorities;
    config.method = methods[random() % methods.size()];
    config.body = loopback::bodyOf(anySize(random));
    return {config, answer(200, config.body)};
}

Work authenticated(const Targets& targets, Random& random) {
    RequestConfig config = get(targets.origin + "/private");
    config.method = Method::PUT;
    config.body = loopback::bodyOf(anySize(random));
    config.user = "device";
    config.password = "secret:word";
    return {config, answer(200, fmt::format("welcome, PUT of {} bytes\n", config.body.size()))};
}

Work redirect(const Targets& targets, Random& random) {
    return {get(fmt::format("{}/redirect/{}", targets.origin, 1 + random() % 5)), answer(200, "")};
}

Work tooLarge(const Targets& targets, Random& random) {
    RequestConfig config =
        get(targets.origin + "/bytes/50000" + (random() % 2 == 0 ? "" : "?chunked"));
    config.max_download_size = 49999;
    return {config, "<Protocol failure>"};
}

Work timedOut(const Targets& targets, Random& random) {
    RequestConfig config = get(targets.origin + "/silence");
    config.timeout = std::chrono::milliseconds(1 + random() % 60);
    return {config, "<Operation timed out>"};
}

Work failing(const Targets& targets, Random& random) {
    switch (random() % 5) {
        case 0:
            return {get(targets.broken), "<Protocol failure>"};
        case 1:
            return {get(targets.closed), "<Failed to establish connection>"};
        case 2:
            return {get("http://h:99999/"), "<Invalid URL>"};
        case 3:
            return {get(targets.tls_origin + "/hello"), "<Protocol failure>"};  // authority unknown
        default:
            return {get(targets.origin + "/status/404"), answer(404, "status 404\n")};
    }
}

}  // namespace

Digest::Digest() { EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr); }

void Digest::add(const char* data, std::size_t length) {
    EVP_DigestUpdate(context_.get(), data, length);
}

std::string Digest::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned length = 0;
    EVP_DigestFinal_ex(context_.get(), bytes.data(), &length);
    std::string text;
    for (unsigned i = 0; i < length; ++i) text += fmt::format("{:02x}", bytes[i]);
    return text;
}

std::string digestOf(const std::string& bytes) {
    Digest digest;
    digest.add(bytes.data(), bytes.size());
    return digest.finish();
}

Work download(const Targets& targets, Random& random) {
    constexpr std::array<const char*, 3> framings = {"", "?chunked", "?close"};
    const std::size_t size = anySize(random);
    const std::string& origin = random() % 3 == 0 ? targets.tls_origin : targets.origin;
    RequestConfig config = get(fmt::format("{}/bytes/{}{}", origin, size, framings[random() % 3]));
    config.ca_file = targets.authorities;
    return {config, answer(200, loopback::bodyOf(size))};
}

Work endlessWait(const Targets& targets) { return {get(targets.origin + "/silence"), ""}; }

Work anyWork(const Targets& targets, Random& random) {
    constexpr std::array<Work (*)(const Targets&, Random&), 12> kinds = {
        download, download, download, download,      upload,   upload,
        upload,   redirect, failing,  authenticated, tooLarge, timedOut};
    return kinds[random() % kinds.size()](targets, random);
}

std::string outcomeOf(const zel::http::ResponseData& response) {
    return std::to_string(response.status) + " " + digestOf(response.body);
}

std::string outcomeOf(const zel::http::ErrorData& error) {
    std::ostringstream text;
    text << error.failure;
    return text.str();
}

}  // namespace test

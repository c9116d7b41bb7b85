// Cookies that outlive the process: a hook gives every transfer one store, which is loaded from a
// file at the start and written at the end. cookie_store URL FILE
//
// Think twice. The store belongs to the whole process: each client sends the cookies that another
// has received, among them the session of another user. Cookies are secrets, and stand in the file
// as they are, and `RequestConfig::reset_state` does not reach this store. The library itself keeps
// no cookies, so that neither happens unasked.

#include <curl/curl.h>
#include <sys/stat.h>

#include <iostream>
#include <string>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace {

/// The store itself, a share of libcurl's. It has no locks: as long as there is an engine only its
/// thread touches the store, before and after that only this one.
class CookieStore {
public:
    explicit CookieStore(const std::string& file) {
        umask(S_IRWXG | S_IRWXO);  // nobody else may read the file
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
        use(keeper_);
        curl_easy_setopt(keeper_, CURLOPT_COOKIEFILE, file.c_str());
        curl_easy_setopt(keeper_, CURLOPT_COOKIELIST, "RELOAD");
        curl_easy_setopt(keeper_, CURLOPT_COOKIEJAR, file.c_str());
    }
    CookieStore(const CookieStore&) = delete;
    CookieStore& operator=(const CookieStore&) = delete;
    ~CookieStore() {
        curl_easy_setopt(keeper_, CURLOPT_COOKIELIST, "FLUSH");
        curl_easy_cleanup(keeper_);
        curl_share_cleanup(share_);
    }

    void use(CURL* easy) const {
        curl_easy_setopt(easy, CURLOPT_SHARE, share_);
        curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");  // turns cookies on
    }

private:
    CURLSH* share_ = curl_share_init();
    CURL* keeper_ = curl_easy_init();
};

CookieStore* store = nullptr;

}  // namespace

/// Takes the place of the library's: see engine_hooks.h.
CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    store->use(easy);
    return curl_multi_add_handle(multi, easy);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: cookie_store URL FILE\n";
        return 2;
    }
    CookieStore own(argv[2]);  // outlives the engine
    store = &own;
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);  // run() waits for more
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    const auto show = [&](const auto& text) {
        std::cout << text << '\n';
        loop.stop();
    };
    zel::http::RequestConfig config;
    config.url = argv[1];
    const auto handle = client->start_request(
        config, {}, [&](const zel::http::ResponseData& response) { show(response.body); },
        [&](const zel::http::ErrorData& error) { show(error.message); });
    loop.run();
}

// The floor of the library's design: one thread, one multi handle, driven as a whole.

#include <curl/curl.h>

#include <memory>
#include <unordered_map>

#include "curl_transfer.h"
#include "load.h"

int main(int argc, char** argv) {
    bench::Load load("raw-multi", argc, argv);
    curl_global_init(CURL_GLOBAL_ALL);
    CURLM* multi = curl_multi_init();
    std::unordered_map<CURL*, std::unique_ptr<bench::CurlTransfer>> transfers;
    load.begin([&](std::size_t id, const std::string& url) {
        auto transfer = std::make_unique<bench::CurlTransfer>(load, id, url);
        curl_multi_add_handle(multi, transfer->easy);
        transfers.emplace(transfer->easy, std::move(transfer));
    });
    while (!load.over()) {
        int running = 0;
        curl_multi_perform(multi, &running);
        bool any = false;
        int remaining = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi, &remaining)) {
            CURL* easy = message->easy_handle;
            const CURLcode result = message->data.result;
            curl_multi_remove_handle(multi, easy);
            const auto node = transfers.extract(easy);
            node.mapped()->finish(load, result);
            any = true;
        }
        if (!any) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    const auto cancel = [&] {
        for (const auto& [easy, transfer] : transfers) curl_multi_remove_handle(multi, easy);
        transfers.clear();
    };
    if (load.work().cancel) {
        load.cancelled(cancel);
    } else {
        cancel();
    }
    const int status = load.report();
    curl_multi_cleanup(multi);
    curl_global_cleanup();
    return status;
}

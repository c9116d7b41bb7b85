// The floor of the library's design: one thread, one multi handle, driven as a whole.

#include <curl/curl.h>

#include <memory>

#include "curl_transfer.h"
#include "load.h"

int main(int argc, char** argv) {
    bench::Load load("raw-multi", argc, argv);
    curl_global_init(CURL_GLOBAL_ALL);
    CURLM* multi = curl_multi_init();
    bench::CurlTransfers transfers;
    load.begin([&](std::size_t id, const std::string& url) {
        auto transfer = std::make_unique<bench::CurlTransfer>(load, id, url);
        curl_multi_add_handle(multi, transfer->easy);
        transfers.emplace(transfer->easy, std::move(transfer));
    });
    while (!load.over()) {
        int running = 0;
        curl_multi_perform(multi, &running);
        const bool any = bench::takeFinished(
            multi, transfers,
            [&](const auto& transfer, CURLcode result) { transfer->finish(load, result); });
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

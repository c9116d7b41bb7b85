#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "load.h"

namespace bench {

/// A request as a program on bare libcurl makes it: a fresh easy handle with the options that the
/// library sets, a table for the header fields of the answer and a string for its body.
class CurlTransfer {
public:
    CurlTransfer(const Load& load, std::size_t id, const std::string& url);
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;
    ~CurlTransfer();

    static CurlTransfer& of(CURL* easy);
    void finish(Load& load, CURLcode result) const;

    CURL* easy;

private:
    void setAuthorities(const Work& work) const;
    void setBody(const Load& load);

    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* transfer);
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* transfer);
    static std::size_t onRead(char* data, std::size_t size, std::size_t count, void* transfer);

    std::size_t id_;
    curl_slist* headers_ = nullptr;
    std::unordered_map<std::string, std::string> fields_;
    std::string received_;
    std::string sent_;
    std::size_t position_ = 0;
};

using CurlTransfers = std::unordered_map<CURL*, std::unique_ptr<CurlTransfer>>;

/// Takes what has finished out of `multi` and `transfers` and calls `done` with each transfer and
/// its result. Returns whether there was any.
template <typename Done>
bool takeFinished(CURLM* multi, CurlTransfers& transfers, const Done& done) {
    bool any = false;
    int remaining = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &remaining)) {
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        curl_multi_remove_handle(multi, easy);
        auto node = transfers.extract(easy);
        done(std::move(node.mapped()), result);
        any = true;
    }
    return any;
}

}  // namespace bench

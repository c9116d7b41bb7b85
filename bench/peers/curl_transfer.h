#pragma once

#include <curl/curl.h>

#include <string>
#include <unordered_map>

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

}  // namespace bench

#pragma once

#include <curl/curl.h>

#include <string>

namespace tool {

/// How long the phases of a transfer took, in milliseconds, and which connection it used. With a
/// kept-alive connection the phases that make one take 0. Redirects are included.
struct Timings {
    double lookup = 0;
    double connect = 0;
    double tls = 0;
    /// From the connection until the first byte of the answer.
    double wait = 0;
    double receive = 0;
    double total = 0;
    /// "1.1", "2"; empty without an answer.
    std::string http_version;
    /// Address and port of the server or proxy; empty without a connection.
    std::string remote;
    bool new_connection = false;
};

/// Receives the timings of transfers that run one after the other.
struct Recording {
    Timings timings;
    CURL* easy = nullptr;
};

/// Lets the next request that is handed to the engine write its timings to `recording` until it
/// ends. One thread calls this, directly before it starts the request. `recording` outlives the
/// engine; its timings are final when the outcome arrives, and nobody reads them before.
void record(Recording& recording);

}  // namespace tool

#pragma once

#include <string>

#include "zel_http/transfer_facts.h"

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

Timings timingsOf(const zel::http::TransferFacts& facts);

}  // namespace tool

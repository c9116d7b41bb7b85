// Reads the facts of a transfer from libcurl. Engine thread.

#include "Engine/facts.h"

#include <openssl/ssl.h>

#include "Engine/tls_connection.h"
#include "Engine/wire_text.h"

namespace zel::http {
namespace {

std::string textOf(CURL* curl, CURLINFO what) {
    const char* text = nullptr;
    curl_easy_getinfo(curl, what, &text);
    return text == nullptr ? "" : text;
}

long numberOf(CURL* curl, CURLINFO what) {
    long number = 0;
    curl_easy_getinfo(curl, what, &number);
    return number;
}

curl_off_t countOf(CURL* curl, CURLINFO what) {
    curl_off_t count = 0;
    curl_easy_getinfo(curl, what, &count);
    return count;
}

std::chrono::microseconds timeOf(CURL* curl, CURLINFO what) {
    return std::chrono::microseconds(countOf(curl, what));
}

const char* protocolOf(CURL* curl) {
    switch (numberOf(curl, CURLINFO_HTTP_VERSION)) {
        case CURL_HTTP_VERSION_1_0:
            return "HTTP/1.0";
        case CURL_HTTP_VERSION_1_1:
            return "HTTP/1.1";
        case CURL_HTTP_VERSION_2_0:
            return "HTTP/2";
        default:
            return "";
    }
}

}  // namespace

void noteTlsFacts(Engine::ActiveTask& task) {
    SSL* const connection = tlsConnectionOf(task.curl);
    task.tlsVersion = connection == nullptr ? "" : SSL_get_version(connection);
    task.tlsResumed = connection != nullptr && SSL_session_reused(connection) == 1;
}

std::string reasonOf(const Engine::ActiveTask& task) {
    std::string text = printable(task.reason.data());
    const auto quote = text.find('\'');
    if (text.rfind("Unsupported proxy", 0) == 0 && quote != std::string::npos) {
        text.replace(quote, std::string::npos, "'...'");
    }
    return text;
}

TransferFacts factsOf(const Engine::ActiveTask& task, CURLcode result) {
    CURL* const curl = task.curl;
    TransferFacts facts;
    facts.curl_code = result;
    facts.curl_text = result == CURLE_OK ? "" : reasonOf(task);
    facts.url = textOf(curl, CURLINFO_EFFECTIVE_URL);
    facts.method = textOf(curl, CURLINFO_EFFECTIVE_METHOD);
    facts.redirects = static_cast<unsigned>(numberOf(curl, CURLINFO_REDIRECT_COUNT));
    facts.local_address = textOf(curl, CURLINFO_LOCAL_IP);
    facts.remote_address = textOf(curl, CURLINFO_PRIMARY_IP);
    facts.local_port = static_cast<std::uint16_t>(numberOf(curl, CURLINFO_LOCAL_PORT));
    facts.remote_port = static_cast<std::uint16_t>(numberOf(curl, CURLINFO_PRIMARY_PORT));
    facts.protocol = protocolOf(curl);
    facts.tls_version = task.tlsVersion;
    facts.tls_verify_result = static_cast<int>(numberOf(curl, CURLINFO_SSL_VERIFYRESULT));
    facts.tls_resumed = task.tlsResumed;
    facts.connection_reused = !facts.protocol.empty() && numberOf(curl, CURLINFO_NUM_CONNECTS) == 0;
    facts.looked_up = timeOf(curl, CURLINFO_NAMELOOKUP_TIME_T);
    facts.connected = timeOf(curl, CURLINFO_CONNECT_TIME_T);
    facts.tls_done = timeOf(curl, CURLINFO_APPCONNECT_TIME_T);
    facts.ready = timeOf(curl, CURLINFO_PRETRANSFER_TIME_T);
    facts.first_byte = timeOf(curl, CURLINFO_STARTTRANSFER_TIME_T);
    facts.total = timeOf(curl, CURLINFO_TOTAL_TIME_T);
    facts.redirecting = timeOf(curl, CURLINFO_REDIRECT_TIME_T);
    facts.bytes_received = static_cast<std::uint64_t>(countOf(curl, CURLINFO_SIZE_DOWNLOAD_T));
    facts.bytes_sent = static_cast<std::uint64_t>(countOf(curl, CURLINFO_SIZE_UPLOAD_T));
    return facts;
}

}  // namespace zel::http

#include "Engine/tls_truncation.h"

#include <openssl/ssl.h>

#include <boost/algorithm/string/predicate.hpp>
#include <cstring>

#include "Engine/tls_connection.h"
#include "Records/header_line.h"

namespace zel::http {
namespace {

/// The index of the `SSL` ex-data slot that holds the transfer's easy handle.
int handleIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

/// An OpenSSL info callback: a close_notify of the connection that the task waits for has come.
void onTlsEvent(const SSL* connection, int where, int value) {
    if (where != SSL_CB_READ_ALERT || (value & 0xff) != SSL_AD_CLOSE_NOTIFY) return;
    const auto task = Engine::ActiveTask::of(SSL_get_ex_data(connection, handleIndex()));
    if (task && task->endAwaited == connection) task->endAwaited = nullptr;
}

bool isChunked(std::string_view line) {
    return hasName(line, "transfer-encoding:") && boost::algorithm::icontains(line, "chunked");
}

/// Whether the current response has a body of undeclared length, ended by the connection's end.
bool endsWithConnection(CURL* curl) {
    long status = 0;
    curl_off_t length = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return length < 0 && status >= 200 && status != 204 && status != 304;
}

/// By what the handshake has negotiated; a status line may say anything.
bool speaksHttp2(const SSL* connection) {
    const unsigned char* protocol = nullptr;
    unsigned length = 0;
    SSL_get0_alpn_selected(connection, &protocol, &length);
    return std::string_view(reinterpret_cast<const char*>(protocol), length) == "h2";
}

}  // namespace

bool hasBrokenTls(CURL* curl) {
    const SSL* connection = anyTlsConnectionOf(curl);
    return connection != nullptr && std::strcmp(SSL_state_string(connection), "SSLERR") == 0;
}

void watchForCloseNotify(Engine::ActiveTask& task, std::string_view line, LineKind kind) {
    if (kind == LineKind::Status) {
        task.chunked = false;
        task.endAwaited = nullptr;
    } else if (kind == LineKind::Field && isChunked(line)) {
        task.chunked = true;
    }
    if (kind != LineKind::End || task.chunked || !endsWithConnection(task.curl)) return;
    SSL* connection = tlsConnectionOf(task.curl);
    if (connection == nullptr || speaksHttp2(connection)) return;
    const bool ended = (SSL_get_shutdown(connection) & SSL_RECEIVED_SHUTDOWN) != 0;
    task.endAwaited = ended ? nullptr : connection;
    SSL_set_ex_data(connection, handleIndex(), task.curl);
    SSL_set_info_callback(connection, onTlsEvent);
}

}  // namespace zel::http

// Opens and closes libcurl's sockets: close-on-exec, so that programs that the host executes do not
// inherit them, and counted where `select` cannot take them. Engine thread, then the destroying
// thread once the engine thread has been joined; touches `highSockets`.

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Engine/statistics.h"
#include "zel_http/engine.h"

namespace zel::http {

curl_socket_t Engine::openSocket(void* engine, curlsocktype purpose,
                                 curl_sockaddr* address) noexcept {
    const int opened = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    auto& self = *static_cast<Engine*>(engine);
    if (opened >= FD_SETSIZE) ++self.highSockets;
    if (opened >= 0 && purpose == CURLSOCKTYPE_IPCXN) self.counters->connections_opened.add(1);
    if (self.tasks.size() > 1) self.passesAgain = true;
    return opened;
}

int Engine::closeSocket(void* engine, curl_socket_t socket) noexcept {
    if (socket >= FD_SETSIZE) --static_cast<Engine*>(engine)->highSockets;
    return close(socket);
}

}  // namespace zel::http

// The base of every request: its control operations hand it to the engine, if there is one.

#include "zel_http/request.h"

#include "zel_http/engine.h"

namespace zel::http {

Request::Request() = default;
Request::Request(const RequestConfig& config) : config(config) {}
Request::~Request() = default;

void Request::runRequest() {
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->addNewRequest(shared_from_this());
}

void Request::tryToCancelRequest() {
    // Called after each outcome of a client, perhaps while the engine is being destroyed: with no
    // transfer left the engine is not touched. A request that nobody owns throws below.
    if (transfers == 0 && !weak_from_this().expired()) return;
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->tryToCancelRequest(shared_from_this());
}

void Request::pauseRequest() {
    if (paused.exchange(true)) return;
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->pauseRequest(shared_from_this());
}

void Request::resumeRequest() {
    if (!paused.exchange(false)) return;
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->resumeRequest(shared_from_this());
}

void Request::notifyHeader(const char* /*line*/, unsigned /*length*/) {}
void Request::notifyAuthRetry() {}
void Request::notifySize(unsigned /*size*/) {}
std::string Request::xauthCookieDomain() const { return {}; }
void Request::reportDownloadProgress(unsigned /*total*/, unsigned /*now*/) {}

}  // namespace zel::http

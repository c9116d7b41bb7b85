// The base of every request: its control operations queue work with the engine, if there is one.

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
    // A client's request calls this after its outcome, perhaps while the engine is being destroyed:
    // with no transfer left it must not touch the engine. Without an owner it throws below.
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

const TransferFacts& Request::facts() const {
    static const TransferFacts none;
    return transferFacts ? *transferFacts : none;
}

void Request::notifyHeader(const char* /*line*/, unsigned /*length*/) {}
void Request::notifyAuthRetry() {}
void Request::notifySize(unsigned /*size*/) {}
std::string Request::xauthCookieDomain() const { return {}; }
void Request::reportDownloadProgress(unsigned /*total*/, unsigned /*now*/) {}

}  // namespace zel::http

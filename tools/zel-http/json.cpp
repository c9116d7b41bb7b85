#include "json.h"

#include <openssl/evp.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <cmath>
#include <nlohmann/json.hpp>

#include "exit_status.h"
#include "text.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

std::string base64(const std::string& bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // OpenSSL ends it with NUL
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

bool isUtf8(const std::string& text) {
    try {
        static_cast<void>(Json(text).dump());
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

/// A header's value may be Latin-1: what is no UTF-8 becomes U+FFFD.
std::string line(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

double rounded(double milliseconds) { return std::round(milliseconds * 1000) / 1000; }

}  // namespace

std::string jsonFields(const Fields& fields) {
    Json json = Json::object();
    for (const auto& [name, value] : fields) {
        json[boost::algorithm::to_lower_copy(name)].push_back(value);
    }
    std::string text = "{";
    for (const auto& [name, values] : json.items()) {
        text += (text.size() > 1 ? ",\n" : "") + line(name) + ':' + line(values);
    }
    return text + "\n}";
}

std::string jsonLine(const Outcome& outcome, bool with_body) {
    Json json = {{"url", withoutCredentials(outcome.request->url)},
                 {"method", nameOf(outcome.request->method)}};
    if (outcome.status != 0) json["status"] = outcome.status;
    if (!outcome.failure.empty()) {
        json["error"] = {{"failure", outcome.failure},
                         {"message", outcome.message},
                         {"exit_status", exitStatusOf(outcome)}};
    }
    if (with_body) {
        for (const auto& [name, value] : outcome.fields) {
            json["headers"].push_back({{"name", name}, {"value", value}});
        }
    }
    json["body_bytes"] = outcome.body_size;
    if (outcome.file != "-") {
        if (!outcome.failed()) json["file"] = outcome.file;
    } else if (with_body && outcome.status != 0) {
        const bool text = isUtf8(outcome.body);
        json[text ? "body" : "body_base64"] = text ? outcome.body : base64(outcome.body);
    }
    const Timings timings = timingsOf(outcome.facts);
    if (!timings.http_version.empty()) json["http_version"] = timings.http_version;
    if (!timings.remote.empty()) {
        json["remote"] = timings.remote;
        json["new_connection"] = timings.new_connection;
    }
    for (const auto& [phase, milliseconds] : phasesOf(outcome)) {
        json["timings_ms"][phase] = rounded(milliseconds);
    }
    return line(json);
}

std::string jsonSummary(const Latencies& latencies, std::chrono::duration<double> took) {
    Json phases = Json::object();
    for (const auto& [phase, values] : latencies.rows()) {
        Json& row = phases[phase];
        for (std::size_t i = 0; i < values.size(); ++i) {
            row[Latencies::columns()[i]] = rounded(values[i]);
        }
    }
    return line({{"requests", latencies.count()},
                 {"seconds", rounded(took.count())},
                 {"body_bytes", latencies.bytes()},
                 {"outcomes", latencies.outcomes()},
                 {"timings_ms", phases}});
}

std::string jsonStatistics(const zel::http::EngineStatistics& engine) {
    const std::chrono::duration<double, std::milli> longest = engine.longest_pass;
    return line({{"statistics",
                  {{"transfers_queued", engine.transfers_queued},
                   {"transfers_in_flight", engine.transfers_in_flight},
                   {"transfers_begun", engine.transfers_begun},
                   {"transfers_ended", engine.transfers_ended},
                   {"connections_opened", engine.connections_opened},
                   {"connections_reused", engine.connections_reused},
                   {"tls_sessions_resumed", engine.tls_sessions_resumed},
                   {"bytes_received", engine.bytes_received},
                   {"bytes_sent", engine.bytes_sent},
                   {"passes", engine.passes},
                   {"wake_ups", engine.wake_ups},
                   {"longest_pass_ms", rounded(longest.count())}}}});
}

}  // namespace tool

#include "report.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <utility>

#include "exit_status.h"
#include "histogram.h"
#include "json.h"
#include "text.h"
#include "write_out.h"

namespace tool {
namespace {

std::string outcomeText(const Outcome& outcome) {
    std::string text = outcome.failure.empty()
                           ? fmt::format("{}  {:>10}", outcome.status, sizeText(outcome.body_size))
                           : outcome.failure;
    if (!outcome.message.empty()) text += " (" + outcome.message + ')';
    text += fmt::format("  {:.1f} ms  {}", outcome.milliseconds,
                        withoutCredentials(outcome.request->url));
    if (outcome.file == "-") return text;
    return text + (outcome.failed() ? "  not saved" : "  -> " + outcome.file);
}

std::string timingsText(const Outcome& outcome) {
    const Timings timings = timingsOf(outcome.facts);
    if (timings.remote.empty()) {
        return outcome.status == 0 ? "     no connection" : "     not timed: ended at the head";
    }
    return fmt::format(
        "     look-up {:.1f}, connect {:.1f}, TLS {:.1f}, wait {:.1f}, receive {:.1f} ms; {} "
        "connection to {}{}{}",
        timings.lookup, timings.connect, timings.tls, timings.wait, timings.receive,
        timings.new_connection ? "new" : "kept", timings.remote,
        timings.http_version.empty() ? "" : ", HTTP/", timings.http_version);
}

std::string statisticsText(const zel::http::EngineStatistics& engine) {
    const std::chrono::duration<double, std::milli> longest = engine.longest_pass;
    return fmt::format(
        "transfers    {} begun, {} ended, {} in flight, {} queued\n"
        "connections  {} opened, {} reused, {} TLS sessions resumed\n"
        "bodies       {} received, {} sent\n"
        "engine       {} passes, the longest {:.2f} ms, {} wake-ups\n",
        engine.transfers_begun, engine.transfers_ended, engine.transfers_in_flight,
        engine.transfers_queued, engine.connections_opened, engine.connections_reused,
        engine.tls_sessions_resumed, sizeText(engine.bytes_received), sizeText(engine.bytes_sent),
        engine.passes, longest.count(), engine.wake_ups);
}

}  // namespace

void Report::add(const Outcome& outcome) {
    const bool repeated = command_line_.repeat > 1;
    if (outcome.failed()) exit_status_ = exitStatusOf(outcome);
    if (repeated) latencies_.add(outcome);
    if (command_line_.json) {
        std::cout << jsonLine(outcome, !repeated) << '\n' << std::flush;
    } else if (command_line_.holds_bodies && !repeated) {
        print(outcome);
    }
    if (!command_line_.write_out.empty()) {
        writeOut(command_line_.write_out, outcome);
    }
    checkOutput();
    if (repeated || command_line_.json) return;
    const bool tells = outcome.failed() ? command_line_.show_errors : command_line_.show_outcomes;
    if (tells) std::cerr << outcomeText(outcome) << '\n';
    if (command_line_.show_timings) std::cerr << timingsText(outcome) << '\n';
}

void Report::addRetry(const Outcome& outcome, std::chrono::milliseconds delay) const {
    if (!command_line_.show_errors) return;
    const std::chrono::duration<double> seconds = delay;
    std::cerr << fmt::format("{}; once more in {:.1f} s\n", outcomeText(outcome), seconds.count());
}

/// Head and body go to standard output, or to the file that was asked for.
void Report::print(const Outcome& outcome) {
    if (outcome.file == "-") {
        printAnswer(outcome, std::cout);
        return;
    }
    if (!outcome.replacesFile()) return;
    std::ofstream file(outcome.file, std::ios::binary);
    printAnswer(outcome, file);
    if (file.flush()) return;
    std::cerr << "zel-http: cannot write " << outcome.file << '\n';
    exit_status_ = CURLE_WRITE_ERROR;
}

void Report::printAnswer(const Outcome& outcome, std::ostream& stream) {
    const bool shows_head = command_line_.show_headers || command_line_.easy.head;
    if (shows_head) stream << outcome.heads;
    if (outcome.is_error_answer) return;
    const bool terminal = &stream == &std::cout && isatty(STDOUT_FILENO) == 1;
    if (terminal && isBinary(outcome.body)) {
        std::cout << std::flush;
        std::cerr << "zel-http: the body is binary; -o FILE saves it, -o - shows it anyway\n";
        exit_status_ = CURLE_WRITE_ERROR;
        return;
    }
    stream << outcome.body;
    if (shows_head) stream << outcome.trailers;
    stream << std::flush;
}

void Report::checkOutput() {
    if (std::cout || std::exchange(output_lost_, true)) return;
    std::cerr << "zel-http: cannot write to standard output\n";
    exit_status_ = CURLE_WRITE_ERROR;
}

void Report::summarise(std::chrono::duration<double> took) {
    if (latencies_.count() == 0) return;
    if (command_line_.json) {
        std::cout << jsonSummary(latencies_, took) << '\n' << std::flush;
    } else {
        printLatencies(took);
    }
    checkOutput();
    if (!command_line_.picture.empty()) drawLatencies();
}

void Report::printLatencies(std::chrono::duration<double> took) {
    std::string text = fmt::format(
        "{} requests in {:.2f} s, {:.0f} a second, {}\n", latencies_.count(), took.count(),
        static_cast<double>(latencies_.count()) / took.count(), sizeText(latencies_.bytes()));
    for (const auto& [outcome, count] : latencies_.outcomes()) {
        text += fmt::format("  {} x {}\n", count, outcome);
    }
    text += fmt::format("{:<10}", "ms");
    for (const auto& column : Latencies::columns()) text += fmt::format("{:>10}", column);
    text += '\n';
    for (const auto& [phase, values] : latencies_.rows()) {
        text += fmt::format("{:<10}", phase);
        for (const double value : values) text += fmt::format("{:>10.2f}", value);
        text += '\n';
    }
    std::cout << text << std::flush;
    if (isatty(STDOUT_FILENO) == 1) std::cout << histogram(latencies_, terminalWidth());
}

void Report::drawLatencies() {
    std::ofstream file(command_line_.picture);
    file << histogramSvg(latencies_);
    if (file.flush()) return;
    std::cerr << "zel-http: cannot write " << command_line_.picture << '\n';
    exit_status_ = CURLE_WRITE_ERROR;
}

void Report::add(const zel::http::EngineStatistics& statistics) {
    if (!command_line_.json) {
        std::cerr << statisticsText(statistics);
        return;
    }
    std::cout << jsonStatistics(statistics) << '\n' << std::flush;
    checkOutput();
}

}  // namespace tool

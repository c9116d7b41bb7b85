#include "eventlog/eventlog.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void record(int priority, const char* text) noexcept {
    const std::size_t length = std::strlen(text);
    const bool ends_line = length != 0 && text[length - 1] == '\n';
    syslog(priority, "%s", text);
    static_cast<void>(std::fprintf(stderr, "%s%s", text, ends_line ? "" : "\n"));
}

}  // namespace

void eventlog(const char* text) noexcept { record(LOG_ERR, text); }

void eventlog_die(const char* format, logging::Arguments args) noexcept {
    try {
        record(LOG_CRIT, args.format(format).c_str());
    } catch (...) {  // no memory, or arguments that do not fit the format: record it as it is
        record(LOG_CRIT, format);
    }
    std::abort();
}

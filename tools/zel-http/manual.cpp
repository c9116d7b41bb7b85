#include "manual.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <sstream>
#include <string>

#include "option_table.h"

namespace tool {
namespace {

/// Escapes a text for man(7), which then reads nothing in it as a command or an escape.
std::string escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\') {
            escaped += "\\e";
        } else if (c == '-') {
            escaped += "\\-";
        } else if ((c == '.' || c == '\'') && (escaped.empty() || escaped.back() == '\n')) {
            escaped += std::string("\\&") + c;
        } else {
            escaped += c;
        }
    }
    return escaped;
}

void writeOptions(std::ostream& page, const CLI::App& app) {
    std::string group;
    for (const OptionRow& row : optionTable(app)) {
        if (row.group != group) page << ".SS " << escape(group = row.group) << '\n';
        page << ".TP\n\\fB" << escape(CLI::detail::join(row.names, ", ")) << "\\fR";
        if (!row.value.empty()) page << " \\fI" << escape(row.value) << "\\fR";
        page << '\n' << escape(row.help) << '\n';
    }
}

/// The footer of the help has sections, each below a line "Title:", whose lines stay as they are.
void writeFooter(std::ostream& page, const std::string& footer) {
    std::istringstream lines(footer);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            page << ".fi\n";
        } else if (line.back() == ':') {
            std::string title = line.substr(0, line.size() - 1);
            std::transform(title.begin(), title.end(), title.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            page << ".SH " << title << "\n.nf\n";
        } else {
            page << escape(line) << '\n';
        }
    }
}

}  // namespace

std::string manualPage(const CLI::App& app) {
    std::ostringstream page;
    page << fmt::format(R"(.TH ZEL\-HTTP 1 "" "zel\-http {}"
.SH NAME
zel\-http \- perform HTTP requests and downloads
.SH SYNOPSIS
.B zel\-http
[\fIOPTIONS\fR] [\fIURL\fR...]
.SH DESCRIPTION
{}
.SH OPTIONS
)",
                        ZEL_HTTP_VERSION, escape(app.get_description()));
    writeOptions(page, app);
    writeFooter(page, app.get_footer());
    return page.str();
}

}  // namespace tool

#include "manual.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <sstream>
#include <vector>

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

std::vector<const CLI::Option*> optionsOf(const CLI::App& app, const std::string& group) {
    return app.get_options([&](const CLI::Option* option) {
        return option->get_group() == group && !option->get_positional();
    });
}

/// "-o,--output".
std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const auto& name : option.get_snames()) names.push_back('-' + name);
    for (const auto& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

/// The placeholder for an option's value: a word in capitals or the choices, "one|other"; empty for
/// a flag.
std::string valueOf(const CLI::Option& option) {
    return option.get_type_size() == 0 ? "" : option.get_option_text();
}

void writeOptions(std::ostream& page, const CLI::App& app) {
    for (const auto& group : app.get_groups()) {
        const auto options = optionsOf(app, group);
        if (options.empty()) continue;
        page << ".SS " << escape(group) << '\n';
        for (const auto* option : options) {
            page << ".TP\n\\fB" << escape(CLI::detail::join(namesOf(*option), ", ")) << "\\fR";
            const std::string value = valueOf(*option);
            if (!value.empty()) page << " \\fI" << escape(value) << "\\fR";
            page << '\n' << escape(option->get_description()) << '\n';
        }
    }
}

/// The footer of the help has paragraphs; one that begins with a line "Title:" is a section.
void writeFooter(std::ostream& page, const std::string& footer) {
    std::istringstream lines(footer);
    bool literal = false;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == ':') {
            std::string title = line.substr(0, line.size() - 1);
            std::transform(title.begin(), title.end(), title.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            page << ".SH " << title << "\n.nf\n";
            literal = true;
        } else if (line.empty()) {
            page << (literal ? ".fi\n.SH NOTES\n" : ".PP\n");
            literal = false;
        } else {
            page << escape(line) << '\n';
        }
    }
}

/// The shell command that completes an option's value.
std::string candidates(const std::string& value) {
    const bool file = value == "FILE" || value == "PATH";
    const bool words = value.find('|') != std::string::npos || value == "bash";
    if (!file && !words) return {};
    std::string list = value;
    std::replace(list.begin(), list.end(), '|', ' ');
    return fmt::format(R"(COMPREPLY=($(compgen {} -- "$word")) )",
                       file ? "-f" : fmt::format(R"(-W "{}")", list));
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

std::string bashCompletion(const CLI::App& app) {
    std::string names;
    std::string values;
    for (const auto* option : app.get_options()) {
        if (option->get_positional()) continue;
        const auto own = namesOf(*option);
        names += ' ' + CLI::detail::join(own, " ");
        const std::string value = valueOf(*option);
        if (value.empty()) continue;
        values +=
            fmt::format("        {}) {};;\n", CLI::detail::join(own, " | "), candidates(value));
    }
    return fmt::format(R"(# bash completion for zel-http
_zel_http() {{
    local word=${{COMP_WORDS[COMP_CWORD]}}
    case ${{COMP_WORDS[COMP_CWORD - 1]}} in
{}        *) [[ $word != -* ]] || COMPREPLY=($(compgen -W "{}" -- "$word")) ;;
    esac
}}
complete -o filenames -F _zel_http zel-http
)",
                       values, names.substr(1));
}

}  // namespace tool

#include "completion.h"

#include <fmt/format.h>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "option_table.h"

namespace tool {
namespace {

using boost::algorithm::join;
using boost::algorithm::replace_all_copy;

std::string bashCandidates(const OptionRow& row) {
    if (takesPath(row)) return R"(COMPREPLY=($(compgen -f -- "$word")) )";
    const std::string words = join(choicesOf(row), " ");
    return words.empty() ? "" : fmt::format(R"(COMPREPLY=($(compgen -W "{}" -- "$word")) )", words);
}

std::string forBash(const std::vector<OptionRow>& table) {
    std::string names;
    std::string values;
    for (const OptionRow& row : table) {
        names += ' ' + join(row.names, " ");
        if (row.value.empty()) continue;
        values += fmt::format("        {}) {};;\n", join(row.names, " | "), bashCandidates(row));
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

/// Text between single quotes, in which zsh and fish take nothing for themselves.
std::string quoted(std::string text) { return '\'' + replace_all_copy(text, "'", "'\\''") + '\''; }

std::string zshAction(const OptionRow& row) {
    if (takesPath(row)) return "_files";
    const auto choices = choicesOf(row);
    return choices.empty() ? " " : '(' + join(choices, " ") + ')';
}

std::string forZsh(const std::vector<OptionRow>& table) {
    std::string lines;
    for (const OptionRow& row : table) {
        std::string help = replace_all_copy(row.help, ":", "\\:");
        help = replace_all_copy(replace_all_copy(help, "[", "\\["), "]", "\\]");
        for (const std::string& name : row.names) {
            std::string one = "*" + name + '[' + help + ']';
            if (!row.value.empty()) one += ":value:" + zshAction(row);
            lines += "    " + quoted(one) + " \\\n";
        }
    }
    return "#compdef zel-http\n_arguments -s \\\n" + lines + "    '*:URL:_urls'\n";
}

std::string forFish(const std::vector<OptionRow>& table) {
    std::string lines;
    for (const OptionRow& row : table) {
        std::string line = "complete -c zel-http";
        for (const std::string& name : row.names) {
            line += name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1);
        }
        if (!row.value.empty()) line += takesPath(row) ? " -r" : " -x";
        const std::string words = join(choicesOf(row), " ");
        if (!words.empty()) line += " -a " + quoted(words);
        lines += line + " -d " + quoted(row.help) + '\n';
    }
    return "# fish completion for zel-http\ncomplete -c zel-http -f\n" + lines;
}

}  // namespace

std::string completion(const CLI::App& app, const std::string& shell) {
    const auto table = optionTable(app);
    if (shell == "zsh") return forZsh(table);
    return shell == "fish" ? forFish(table) : forBash(table);
}

}  // namespace tool

#include "option_table.h"

#include <CLI/CLI.hpp>

namespace tool {

std::vector<OptionRow> optionTable(const CLI::App& app) {
    std::vector<OptionRow> rows;
    for (const auto& group : app.get_groups()) {
        for (const auto* option : app.get_options()) {
            if (option->get_group() != group || group.empty() || option->get_positional()) continue;
            OptionRow row;
            for (const auto& name : option->get_snames()) row.names.push_back('-' + name);
            for (const auto& name : option->get_lnames()) row.names.push_back("--" + name);
            row.value = option->get_type_size() == 0 ? "" : option->get_option_text();
            row.help = option->get_description();
            row.group = group;
            rows.push_back(row);
        }
    }
    return rows;
}

std::vector<std::string> choicesOf(const OptionRow& row) {
    if (row.value.find('|') == std::string::npos) return {};
    return CLI::detail::split(row.value, '|');
}

bool takesPath(const OptionRow& row) { return row.value == "FILE" || row.value == "PATH"; }

}  // namespace tool

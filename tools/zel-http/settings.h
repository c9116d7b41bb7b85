#pragma once

#include "options.h"

namespace tool {

/// Makes of the options what all requests of the command line have in common. Refuses what is wrong
/// with them.
void completeSettings(zel::http::RequestConfig& config, const Options& options, CommandLine& line);

/// The proxy of -x and -U. An empty -x goes before the proxies of the environment, too.
void chooseProxy(const CLI::App& app, const Options& options, CommandLine& line);

}  // namespace tool

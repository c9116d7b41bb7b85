#pragma once

#include "options.h"

namespace tool {

/// URLs with and without --url, and what -o and -O say, count in the order in which they stand.
void putInOrder(const CLI::App& app, Options& options);

/// Each URL gets a scheme.
void completeUrls(Options& options);

/// Where the body of each URL goes, and whether it is held in memory before.
void chooseFiles(const Options& options, CommandLine& line);

/// A request for each URL, with what all have in common.
void addRequests(const Options& options, const zel::http::RequestConfig& common, CommandLine& line);

}  // namespace tool

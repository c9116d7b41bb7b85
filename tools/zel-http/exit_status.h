#pragma once

#include <string>

#include "outcome.h"
#include "zel_http/download.h"

namespace tool {

/// The exit status of a program whose last outcome this is: curl's where it has one.
int exitStatusOf(const Outcome& outcome);

/// The status for a failed download that libcurl knows nothing of; 0 where it does.
int exitStatusOf(zel::http::DownloadFailure failure);

/// Lines for the help and the manual: the statuses and what they mean.
std::string exitStatusTable();

}  // namespace tool

#pragma once

/// @file
/// The device's record of events.

#include <fmt/printf.h>

#include "oru/export.h"

/// Records a non-fatal event where the device keeps them. Any thread; does not throw.
ORU_EXPORT void eventlog(const char* text) noexcept;

/// Records a fatal event, a printf-style format with its arguments, and ends the process with
/// SIGABRT. Any thread.
[[noreturn]] ORU_EXPORT void eventlog_die(fmt::string_view format, fmt::printf_args args) noexcept;

#pragma once

/// @file
/// The device's record of events.

#include "logging/arguments.h"
#include "oru/export.h"

/// Records a non-fatal event where the device keeps them. Any thread; does not throw.
ORU_EXPORT void eventlog(const char* text) noexcept;

/// Records a fatal event, a printf-style format with its arguments, and ends the process with
/// SIGABRT. Any thread.
[[noreturn]] ORU_EXPORT void eventlog_die(const char* format, logging::Arguments args) noexcept;

#pragma once

/// @file
/// The device's record of events.

#include "logging/arguments.h"
#include "oru/export.h"

/// Records an event that does not end the process, where the device keeps its events. Call it on
/// any thread. It does not throw.
ORU_EXPORT void eventlog(const char* text) noexcept;

/// Records a fatal event and ends the process with SIGABRT. `format` is printf-style and `args` has
/// its values. Call it on any thread.
[[noreturn]] ORU_EXPORT void eventlog_die(const char* format, logging::Arguments args) noexcept;

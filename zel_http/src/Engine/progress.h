#pragma once

namespace zel::http {

/// The transfer time, in whole seconds, at the last progress report of any transfer. Engine thread;
/// the engine's destructor resets it.
extern long lastProgressReport;

}  // namespace zel::http

#pragma once

/// Exports a symbol from a shared library that is built with hidden visibility.
#define ORU_EXPORT __attribute__((visibility("default")))

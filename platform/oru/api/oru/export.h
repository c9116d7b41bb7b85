#pragma once

/// Marks what a shared library built with hidden visibility still shows.
#define ORU_EXPORT __attribute__((visibility("default")))

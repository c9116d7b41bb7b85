#pragma once

/// Marks the public interface; everything else in the library is hidden.
#define ZEL_HTTP_API __attribute__((visibility("default")))

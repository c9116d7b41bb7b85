#pragma once

namespace tool {

/// Shows the library at work against an origin of its own: a line for each scenario with what was
/// expected and what came. Returns the exit status, 0 when all came as expected.
int demonstrate();

}  // namespace tool

#pragma once

namespace tool {

/// Runs the library against servers of its own on loopback and prints a line for each scenario,
/// with the expected and the actual outcome. Returns the exit status, 0 when all were as expected.
int demonstrate();

}  // namespace tool

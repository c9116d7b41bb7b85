#pragma once

#include <curl/curl.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <string>

#include "body.h"

namespace tool {

inline constexpr int bad_command_line = 2;

/// Ends the reading of the command line with this text, and the program with this status.
[[noreturn]] inline void refuse(const std::string& text, int status = bad_command_line) {
    throw CLI::ValidationError(text, status);
}

/// Runs `read`, and refuses what it throws in the name of an option.
template <typename Read>
auto reading(const char* option, Read read) {
    try {
        return read();
    } catch (const CLI::Error&) {
        throw;
    } catch (const UnreadableFile& error) {
        refuse(std::string(option) + ": " + error.what(), CURLE_READ_ERROR);
    } catch (const std::exception& error) {
        refuse(std::string(option) + ": " + error.what());
    }
}

}  // namespace tool

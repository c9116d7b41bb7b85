#pragma once

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <string>
#include <utility>

namespace test {

/// A program in a shell, standard error included. The shell's first line is the process identifier.
class Program {
public:
    explicit Program(const std::string& command_line)
        : pipe_(popen(("echo $$; exec " + command_line + " 2>&1").c_str(), "r")) {
        prints("\n");
        pid_ = std::stoi(output_);
        output_.erase(0, output_.find('\n') + 1);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        if (pipe_ != nullptr) pclose(pipe_);
    }

    void interrupt(int signal = SIGINT) const { kill(pid_, signal); }
    /// Reads on until the output contains `text`, or ends.
    bool prints(const std::string& text) {
        while (output_.find(text) == std::string::npos) {
            if (!readMore()) return false;
        }
        return true;
    }
    /// All of the output and then "exit N".
    std::string finish() {
        while (readMore()) {
        }
        const int status = pclose(std::exchange(pipe_, nullptr));
        return output_ + "exit " + std::to_string(WEXITSTATUS(status));
    }

private:
    bool readMore() {
        std::array<char, 4096> part{};
        const auto length = read(fileno(pipe_), part.data(), part.size());
        if (length > 0) output_.append(part.data(), static_cast<std::size_t>(length));
        return length > 0;
    }

    FILE* pipe_;
    int pid_ = 0;
    std::string output_;
};

}  // namespace test

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace zel::http {

/// Two large blocks between the engine thread, which fills one, and the worker, which writes the
/// other. They swap, so that no byte is allocated or copied twice. Not locked.
class BlockQueue {
public:
    static constexpr std::size_t largest_block = std::size_t{512} * 1024;

    /// `rate` is the limit in bytes a second, 0 for none: a slow download has small blocks, so that
    /// it does not come in bursts.
    explicit BlockQueue(std::uint64_t rate) : most_(blockFor(rate)) {}

    /// Blocks are small until this is called: they lie in memory until somebody takes them.
    void enlarge() { size_ = most_; }

    void append(const char* data, std::size_t length) {
        if (filling_.capacity() < size_) filling_.reserve(size_ + slack);
        filling_.append(data, length);
    }
    bool empty() const { return filling_.empty(); }
    /// Whether it is worth to write; the other half of the block is room until the worker comes.
    bool ready() const { return filling_.size() >= size_ / 2; }
    bool full() const { return filling_.size() >= size_; }
    /// Returns what has been filled, valid until the next call; the former block is filled next.
    const std::string& take() {
        writing_.clear();
        filling_.swap(writing_);
        return writing_;
    }
    void drop() {
        filling_.clear();
        size_ = std::min(most_, small_block);
    }

private:
    /// libcurl hands over 16 KiB at most; with the room for one more call a block does not grow.
    static constexpr std::size_t slack = std::size_t{16} * 1024;
    static constexpr std::size_t small_block = std::size_t{128} * 1024;

    static std::size_t blockFor(std::uint64_t rate) {
        constexpr std::uint64_t blocks_per_second = 4;
        if (rate == 0) return largest_block;
        return static_cast<std::size_t>(
            std::clamp<std::uint64_t>(rate / blocks_per_second, 1024, largest_block));
    }

    std::size_t most_;
    std::size_t size_ = std::min(most_, small_block);
    std::string filling_;
    std::string writing_;
};

}  // namespace zel::http

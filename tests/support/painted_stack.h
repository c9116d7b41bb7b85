#pragma once

#include <pthread.h>

#include <cstddef>

namespace test {

/// How much of its stack a thread uses: paints what is free, and looks later how much of the paint
/// is left. Both on that thread.
class PaintedStack {
public:
    __attribute__((noinline)) void paint() {
        pthread_attr_t attributes;
        void* lowest = nullptr;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &lowest, &size_);
        pthread_attr_destroy(&attributes);
        lowest_ = static_cast<volatile unsigned char*>(lowest);
        constexpr std::size_t this_frame = 1024;
        const volatile void* free =
            static_cast<unsigned char*>(__builtin_frame_address(0)) - this_frame;
        for (auto* byte = lowest_; byte < free; ++byte) *byte = paint_;
    }
    /// In bytes, from the top of the stack, with what the C library keeps there.
    std::size_t used() const {
        std::size_t unused = 0;
        while (unused < size_ && lowest_[unused] == paint_) ++unused;
        return size_ - unused;
    }
    std::size_t size() const { return size_; }

private:
    static constexpr unsigned char paint_ = 0xA5;

    volatile unsigned char* lowest_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace test

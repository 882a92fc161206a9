#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/** The bytes of one run, taken from the front. */
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}

    const std::uint8_t *data() const { return data_; }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    /** 0 when nothing is left. */
    unsigned byte() {
        const Input taken = take(1);
        return taken.empty() ? 0 : taken.data()[0];
    }
    /** As much of it as there is. */
    Input take(std::size_t size) {
        const Input taken(data_, std::min(size, size_));
        data_ += taken.size_;
        size_ -= taken.size_;
        return taken;
    }

private:
    const std::uint8_t *data_;
    std::size_t size_;
};

/** Ends the run when what must always hold does not. */
inline void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

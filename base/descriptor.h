// Owning type for a file descriptor: closes it when destroyed.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quill {

class Descriptor {
 public:
    Descriptor() = default;
    // Takes ownership of `number`; a negative one stands for no descriptor.
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    explicit operator bool() const { return number_ >= 0; }
    int get() const { return number_; }
    // Returns the descriptor, which the caller then owns, or -1.
    int release() { return std::exchange(number_, -1); }
    // Closes the descriptor it holds, if any, and takes ownership of `number`. Preserves errno.
    void reset(int number = -1) {
        if (number_ >= 0) {
            const int kept = errno;
            close(number_);
            errno = kept;
        }
        number_ = number;
    }

 private:
    int number_ = -1;
};

}  // namespace quill

// Owning pointers for malloc()ed blocks and C objects.
#pragma once

#include <cstdlib>
#include <memory>

namespace quill {

// A deleter for std::unique_ptr that calls `release`, the C library's or OpenSSL's function for the object.
template <auto release>
struct Release {
    template <class Object>
    void operator()(Object* object) const {
        release(object);
    }
};

// A block from malloc(3), freed with free(3).
template <class Content>
using Block = std::unique_ptr<Content, Release<free>>;

}  // namespace quill

// What somebody else allocates and is ours to release: blocks of the heap, and objects with a function of
// their own for it.
#pragma once

#include <cstdlib>
#include <memory>

namespace quill {

template <auto release>
struct Release {
    template <class Object>
    void operator()(Object* object) const {
        release(object);
    }
};
template <class Content>
using Block = std::unique_ptr<Content, Release<free>>;

}  // namespace quill

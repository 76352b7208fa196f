// A structure that holds a secret: zeroed when created, or copied from another, and wiped when destroyed.
#pragma once

#include <cstring>

#include "base/non_copyable.h"

namespace quill {

template <class Holder>
struct Wiped : Holder, NonCopyable {
    Wiped() { wipe(); }
    explicit Wiped(const Holder& original) : Holder(original) {}
    ~Wiped() { wipe(); }

 private:
    void wipe() { explicit_bzero(static_cast<Holder*>(this), sizeof(Holder)); }
};

}  // namespace quill

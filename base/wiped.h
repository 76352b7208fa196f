// A structure that holds a secret: zeroed when created, or copied from another, and wiped when destroyed.
#pragma once

#include <cstring>

namespace quill {

template <class Holder>
struct Wiped : Holder {
    Wiped() { wipe(); }
    explicit Wiped(const Holder& original) : Holder(original) {}
    ~Wiped() { wipe(); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;

 private:
    void wipe() { explicit_bzero(static_cast<Holder*>(this), sizeof(Holder)); }
};

}  // namespace quill

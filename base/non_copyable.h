// Base of classes that own something and are neither copied nor moved.
#pragma once

namespace quill {

struct NonCopyable {
    NonCopyable() = default;
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;
};

}  // namespace quill

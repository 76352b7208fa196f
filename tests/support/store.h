// The store's calls in terms of strings, for tests of whichever store is linked.
#pragma once

#include <optional>
#include <string>

#include "quillplatform/pss.h"

inline pss_descriptor describe(const std::string& bytes) {
    return {const_cast<char*>(bytes.data()), static_cast<uint32_t>(bytes.size())};
}

inline std::string bytes_of(const pss_descriptor* run) {
    return run == nullptr ? "(null)" : std::string(static_cast<const char*>(run->bytes), run->length);
}

inline std::string numbered(std::string text, unsigned number) { return text += std::to_string(number); }

inline uint32_t put(uint32_t handle, const std::string& key, const std::string& value) {
    const pss_descriptor key_run = describe(key), value_run = describe(value);
    return pss2_store(handle, &key_run, &value_run);
}

inline uint32_t erase(uint32_t handle, const std::string& key) {
    const pss_descriptor run = describe(key);
    return pss2_delete(handle, &run, 1);
}

// The value, or the status in brackets.
inline std::string fetch(uint32_t handle, const std::string& key) {
    const pss_descriptor run = describe(key);
    uint32_t status = 0x55;
    const pss_descriptor* found = pss2_fetch(handle, &run, &status);
    if (status == PSS_OK) return bytes_of(found);
    char text[24];
    snprintf(text, sizeof text, "[%x]%s", status, found == nullptr ? "" : " and a value");
    return text;
}

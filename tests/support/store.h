// The store's functions with strings as arguments, for tests of the SQLite store and of the fake.
#pragma once

#include <optional>
#include <string>

#include "quillplatform/pss.h"

inline pss_descriptor describe(const std::string& bytes) {
    return {const_cast<char*>(bytes.data()), static_cast<uint32_t>(bytes.size())};
}

inline std::string bytes_of(const pss_descriptor* returned) {
    return returned == nullptr ? "(null)"
                               : std::string(static_cast<const char*>(returned->bytes), returned->length);
}

inline std::string numbered(std::string text, unsigned number) { return text += std::to_string(number); }

// Opens a store, creating it if need be, and sets `handle`. Returns the status.
inline uint32_t open_store(uint32_t& handle, const std::string& name = "s",
                           uint32_t flags = PSS_READ_WRITE | PSS_CREATE, uint32_t version = 0) {
    const uint32_t parameters[4] = {0, 0, 0, version};
    uint32_t status = 0x55;
    handle = pss2_open(name.c_str(), flags, 42, 0, parameters, &status);
    return status;
}

inline uint32_t put(uint32_t handle, const std::string& key, const std::string& value) {
    const pss_descriptor described_key = describe(key), described_value = describe(value);
    return pss2_store(handle, &described_key, &described_value);
}

inline uint32_t erase(uint32_t handle, const std::string& key) {
    const pss_descriptor described = describe(key);
    return pss2_delete(handle, &described, 1);
}

// Returns the value, or the status in hexadecimal in brackets.
inline std::string fetch(uint32_t handle, const std::string& key) {
    const pss_descriptor described = describe(key);
    uint32_t status = 0x55;
    const pss_descriptor* found = pss2_fetch(handle, &described, &status);
    if (status == PSS_OK) return bytes_of(found);
    char text[24];
    snprintf(text, sizeof text, "[%x]%s", status, found == nullptr ? "" : " and a value");
    return text;
}

// The cursor of a store. Results are "key=value" of its record, "none", or "failed".
struct Cursor {
    uint32_t store;

    std::string here() const {
        uint32_t key_status = 0x55, value_status = 0x55;
        const pss_descriptor* key = pss2_getkey(store, &key_status);
        const std::string name = bytes_of(key);
        const pss_descriptor* value = pss2_getvalue(store, &value_status);
        if (key_status == PSS_OK && value_status == PSS_OK) return name + "=" + bytes_of(value);
        if (value != nullptr || (key == nullptr) != (key_status != PSS_OK)) return "inconsistent";
        if (key_status == PSS_OK && value_status == PSS_CORRUPT) return name + " damaged";
        return key_status == PSS_NO_KEY && value_status == PSS_NO_KEY ? "none" : "failed";
    }
    // To a key ("at ...") or, if it does not exist, the one that follows ("after ...").
    std::string move(const std::string& key) const {
        const pss_descriptor described = describe(key);
        uint32_t handle = store, status = 0x55;
        const uint32_t returned = pss2_move2key(&handle, PSS_MODE, &described, &status);
        return returned != status ? "inconsistent" : (status == PSS_OK ? "at " : "after ") + here();
    }
    std::string next() const {
        uint32_t handle = store, status = 0x55;
        const uint32_t returned = pss2_move2location(&handle, PSS_MODE, PSS_NEXT, &status);
        if (returned != status) return "inconsistent";
        return status == PSS_OK ? here() : status == PSS_NO_KEY ? "none" : "failed";
    }
};

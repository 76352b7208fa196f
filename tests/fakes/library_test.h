// Test fixture: a new world for each test.
#pragma once

#include <gtest/gtest.h>

#include "quillsecurity.h"
#include "tests/fakes/world.h"

class LibraryTest : public testing::Test {
 protected:
    void SetUp() override {
        world() = World();
        security_cmi_timeout = 60;
    }
};

using Texts = std::vector<std::string>;

// The bytes of a record or a word in host order, and a text with zeros up to the size of its field.
template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}
inline std::string padded(std::string text, size_t size) {
    text.resize(size);
    return text;
}

// A function of a handle, an operation and a record, called with the record's bytes.
template <uint32_t handle, auto function>
uint32_t by_record(uint32_t operation, char* record) {
    return [&]<class Record>(uint32_t (*)(uint32_t, uint32_t, Record*)) {
        return function(handle, operation, reinterpret_cast<Record*>(record));
    }(function);
}

// A user's list of roles. A list of locales has the same layout.
inline security_user_roles list(const std::string& user, const Texts& names = {}) {
    security_user_roles made{};
    user.copy(made.user_name, sizeof made.user_name);
    made.num_roles = static_cast<int32_t>(names.size());
    for (size_t i = 0; i < names.size(); ++i) names[i].copy(made.roles[i], sizeof made.roles[i]);
    return made;
}

inline security_user user(const std::string& name, const std::string& password = "", uint32_t encryption = 0,
                          uint32_t type = 0) {
    security_user made{};
    name.copy(made.user_name, sizeof made.user_name);
    made.user_type = type;
    made.encryption_type = encryption;
    password.copy(made.password, sizeof made.password);
    return made;
}

inline security_priv_info level(int32_t number, int32_t encryption = 0, const std::string& secret = "") {
    security_priv_info info{};
    info.priv_lvl = number;
    info.encryption_type = encryption;
    secret.copy(info.secret, sizeof info.secret);
    info.secret_len = static_cast<int32_t>(secret.size());
    return info;
}

inline common_user_member member(const std::string& user, const std::string& name) {
    common_user_member made{};
    user.copy(made.user_name, sizeof made.user_name - 1);
    name.copy(made.name, sizeof made.name - 1);
    return made;
}

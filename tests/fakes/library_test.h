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

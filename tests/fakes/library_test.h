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

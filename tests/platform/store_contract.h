// The fixture of the tests in store_contract_test.cc, which run once with the SQLite store and once with the
// fake. A source file for each of them defines fresh_store().
#pragma once

#include <gtest/gtest.h>

#include "tests/support/store.h"

// Returns the handle of an open, empty store.
uint32_t fresh_store();

class StoreContract : public testing::TestWithParam<const char*> {
 protected:
    // Returns key and value of the record that the cursor is at as "key=value", or describes the failure.
    std::string here() {
        uint32_t status = 0x55;
        const pss_descriptor* found = pss2_getkey(store, &status);
        if (status != PSS_OK)
            return found == nullptr && value_here() == "" ? failure(status) : "only one of them failed";
        const std::string key = bytes_of(found);
        return key + "=" + value_here();
    }

    std::string value_here() {
        uint32_t status = 0x55;
        const pss_descriptor* found = pss2_getvalue(store, &status);
        if (status == PSS_OK) return bytes_of(found);
        return found == nullptr && status == PSS_NO_KEY ? "" : "(wrong)";
    }

    std::string move(const std::string& key) {
        const pss_descriptor described = describe(key);
        uint32_t handle = store, status = 0x55;
        const uint32_t returned = pss2_move2key(&handle, PSS_MODE, &described, &status);
        EXPECT_EQ(returned, status) << "returned and stored";
        return (status == PSS_OK ? "at " : "after ") + here();
    }

    std::string next() {
        uint32_t handle = store, status = 0x55;
        const uint32_t returned = pss2_move2location(&handle, PSS_MODE, PSS_NEXT, &status);
        EXPECT_EQ(returned, status) << "returned and stored";
        return status == PSS_OK ? here() : failure(status);
    }

    static std::string failure(uint32_t status) { return status == PSS_NO_KEY ? "none" : "failed"; }

    const uint32_t store = fresh_store();
};

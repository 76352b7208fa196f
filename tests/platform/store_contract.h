// The store's promises as tests, for whichever store is linked: store_contract_test.cc has them, and beside
// it each store's own file says how to come by a fresh one.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/store.h"

// The handle of an open and empty store, whatever the one before held.
uint32_t fresh_store();

class StoreContract : public testing::TestWithParam<const char*> {
 protected:
    // Key and value under the cursor as "key=value", or the status in brackets.
    std::string here() {
        uint32_t status = 0x55;
        const pss_descriptor* found = pss2_getkey(store, &status);
        if (status != PSS_OK)
            return found == nullptr && value_here() == "" ? bracketed(status) : "not both refused";
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
        const pss_descriptor run = describe(key);
        uint32_t handle = store, status = 0x55;
        const uint32_t answer = pss2_move2key(&handle, PSS_MODE, &run, &status);
        EXPECT_EQ(answer, status) << "answered and stored";
        return (status == PSS_OK ? "at " : "after ") + here();
    }

    std::string next() {
        uint32_t handle = store, status = 0x55;
        const uint32_t answer = pss2_move2location(&handle, PSS_MODE, PSS_NEXT, &status);
        EXPECT_EQ(answer, status) << "answered and stored";
        return status == PSS_OK ? here() : bracketed(status);
    }

    static std::string bracketed(uint32_t status) { return status == PSS_NO_KEY ? "none" : "failed"; }

    const uint32_t store = fresh_store();
};

#include <memory>

#include "tests/platform/store_contract.h"
#include "tests/support/box.h"

INSTANTIATE_TEST_SUITE_P(Sqlite, StoreContract, testing::Values("sqlite"));

uint32_t fresh_store() {
    static std::unique_ptr<Box> box;
    static uint32_t handle = 0;
    if (box != nullptr) pss2_close(handle);
    box = nullptr;
    box = std::make_unique<Box>();
    EXPECT_EQ(PSS_OK, open_store(handle));
    return handle;
}

#include "tests/fakes/world.h"
#include "tests/platform/store_contract.h"

INSTANTIATE_TEST_SUITE_P(Fake, StoreContract, testing::Values("fake"));

uint32_t fresh_store() {
    world() = World();
    return kHandle;
}

#include "tests/fakes/world.h"
#include "tests/platform/store_contract.h"

namespace {

uint32_t fresh_store() {
    world() = World();
    return kHandle;
}

INSTANTIATE_TEST_SUITE_P(Fake, StoreContract, testing::Values(fresh_store));

}  // namespace

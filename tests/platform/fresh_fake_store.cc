#include "tests/fakes/world.h"
#include "tests/platform/fresh_store.h"

uint32_t fresh_store() {
    world() = World();
    return kHandle;
}

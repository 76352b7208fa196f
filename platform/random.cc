#include "quillplatform/random.h"

#include <sys/random.h>

#include <cstdlib>

uint32_t TRAL_random() {
    uint32_t number;
    if (getrandom(&number, sizeof number, 0) == sizeof number) return number;
    // On kernels without getrandom(): the generator that the caller has seeded, which returns 31 bits.
    return static_cast<uint32_t>(random()) << 1 ^ static_cast<uint32_t>(random());
}

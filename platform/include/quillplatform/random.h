/* Random numbers. */
#ifndef QUILLPLATFORM_RANDOM_H
#define QUILLPLATFORM_RANDOM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Returns a random 32-bit number. The reference uses getrandom(2), not random(3). */
uint32_t TRAL_random(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif

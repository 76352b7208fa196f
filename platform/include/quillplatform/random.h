/* Random numbers. */
#ifndef QUILLPLATFORM_RANDOM_H
#define QUILLPLATFORM_RANDOM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A 32-bit number. The reference takes it from the kernel (getrandom(2)), whatever random(3) was seeded with.
 */
uint32_t TRAL_random(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif

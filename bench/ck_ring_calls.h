/* Concurrency Kit's ring for C++: its own header does not compile as C++. The calls are not
 * inlined, like those of the frame library. */
#ifndef BENCH_CK_RING_CALLS_H
#define BENCH_CK_RING_CALLS_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

struct bench_ck_ring;

/* `slots` is a power of two; null without memory. Freed with free(3). */
struct bench_ck_ring* bench_ck_ring_new(unsigned slots);
bool bench_ck_ring_put(struct bench_ck_ring* ring, void* value);
bool bench_ck_ring_take(struct bench_ck_ring* ring, void** value);

#ifdef __cplusplus
}
#endif

#endif

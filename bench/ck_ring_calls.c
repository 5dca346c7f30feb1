#include "bench/ck_ring_calls.h"

#include <ck_ring.h>
#include <stdlib.h>

struct bench_ck_ring {
  ck_ring_t ring;
  ck_ring_buffer_t entries[];
};

struct bench_ck_ring* bench_ck_ring_new(unsigned slots) {
  const size_t size = sizeof(struct bench_ck_ring) + slots * sizeof(ck_ring_buffer_t);
  const size_t whole_lines = (size + CK_MD_CACHELINE - 1) / CK_MD_CACHELINE * CK_MD_CACHELINE;
  struct bench_ck_ring* ring = aligned_alloc(CK_MD_CACHELINE, whole_lines);
  if (ring != NULL) {
    ck_ring_init(&ring->ring, slots);
  }
  return ring;
}

bool bench_ck_ring_put(struct bench_ck_ring* ring, void* value) {
  return ck_ring_enqueue_mpmc(&ring->ring, ring->entries, value);
}

bool bench_ck_ring_take(struct bench_ck_ring* ring, void** value) {
  return ck_ring_dequeue_mpmc(&ring->ring, ring->entries, value);
}

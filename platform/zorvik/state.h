// The driver's state: the contents of the file /dev/zorvik/ctl, which every process that uses the
// driver maps. `lock` guards everything except the members marked as fixed.
//
// A process can be killed at any instruction, also while it holds the lock. So each fact is stored
// in one place and changed by one store:
// - a group or queue exists while its `life` is kLive. kPending means that its nodes are being
//   created or removed; the next holder of the lock finishes the removal.
// - a frame is allocated while its record names a buffer.
// - a group's current settings are those that `current` selects. A change is written to the other
//   copy first.
// Free lists and their counts are derived from the frame records and can be rebuilt.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zorlib/zorvik_layout.h"

namespace tarnik::zorvik {

inline constexpr std::uint64_t kStateMagic = 0x346b6976726f7aULL;  // "zorvik4"
inline constexpr std::uint32_t kMaxGroups = 8;
inline constexpr std::uint32_t kMaxQueues = ZORVIK_ENUM_MAX;
inline constexpr std::uint32_t kMaxClasses = 4;
inline constexpr std::uint32_t kMaxFrames = 1000000;  // of a group, and buffers in all
inline constexpr std::uint32_t kMaxProcesses = 255;   // that allocate frames
inline constexpr std::uint32_t kMaxQueueSize = 16000000;
inline constexpr std::uint32_t kNone = 0xffffffff;  // ends a free list

enum class Life : std::uint32_t { kFree = 0, kPending = 1, kLive = 2 };

struct Queue {
  Life life;
  std::uint32_t id;  // never used again while the driver is loaded
  std::uint32_t type;
  std::uint32_t requested;
  std::uint32_t slots;
  char name[ZORVIK_NAME_MAX + 1];
  std::uint64_t inode;

  // The numbers of the two sides' wait records.
  [[nodiscard]] std::uint32_t producerHandle() const { return id * 2; }
  [[nodiscard]] std::uint32_t consumerHandle() const { return id * 2 + 1; }
  [[nodiscard]] std::size_t memSize() const {
    return sizeof(zorvik_qmem) + sizeof(std::uint64_t) * slots;
  }
};

// The driver's own record of a descriptor. Applications can write to the descriptor itself, so
// its generation is never read.
struct FrameRecord {
  std::uint32_t next;    // in the free list
  std::uint32_t buffer;  // number of the frame's buffer + 1, 0 while it is not allocated
  std::uint8_t generation;
  std::uint8_t owner;  // the process that allocated the frame, see Driver::process()
  std::uint8_t reserved[2];
};

struct Settings {
  zorvik_ifg_config config;
  zorvik_qpair_cfg queuePairs[ZORVIK_QPAIR_MAX];
  std::uint32_t cookie;  // 0 before the first configuration, at most INT_MAX
  std::uint32_t reserved;
};

struct Group {
  Life life;
  std::uint32_t id;
  char name[ZORVIK_NAME_MAX + 1];
  std::uint64_t flags;
  std::uint64_t ctlInode;
  std::uint64_t descInode;
  std::uint32_t records;   // descriptors including the unused first one, 0: no frame data yet
  std::uint32_t freeHead;  // oldest first, so that an identifier is used again as late as possible
  std::uint32_t freeTail;
  std::uint32_t freeCount;
  std::uint32_t current;        // 0 or 1, of `copies`
  std::uint64_t allocs;         // frames given out
  std::uint64_t allocEmpty;     // requests that found no frame
  std::uint64_t allocTooLarge;  // requests for more than the largest buffer holds
  Settings copies[2];
  Queue queues[kMaxQueues];

  [[nodiscard]] const Settings& settings() const { return copies[current]; }
  void setSettings(const Settings& next) {
    const std::uint32_t other = 1 - current;
    copies[other] = next;
    // The copy is complete before it is selected, whenever the process dies.
    std::atomic_ref(current).store(other, std::memory_order_release);
  }
  [[nodiscard]] std::uint32_t frames() const { return records == 0 ? 0 : records - 1; }
};

// Buffers of one size, contiguous in the payload memory.
struct FrameClass {
  std::uint32_t bufSize;      // fixed
  std::uint32_t count;        // fixed
  std::uint32_t firstBuffer;  // fixed
  std::uint32_t dataOff;      // fixed: offset of the first buffer in the payload memory
  std::uint32_t freeHead;     // last freed first, because it is still in the processor's cache
  std::uint32_t freeCount;
};

struct Faults {
  std::uint32_t slowWakeMs;   // each wake request takes this long
  std::uint32_t dropWakes;    // the next n wake requests do nothing
  std::uint32_t eintrIn;      // the n-th wait request from now fails with EINTR, 0: none
  std::uint32_t strictWaits;  // not 0: sleepers never check the ring themselves
  std::uint32_t reserved;
};

struct State {
  std::uint64_t magic;        // fixed
  std::uint64_t size;         // fixed: bytes of the state file
  std::uint64_t device;       // fixed: st_dev of all nodes
  std::uint64_t ctlInode;     // fixed until the driver is unloaded, then 0
  std::uint64_t netInode;     // as ctlInode
  std::uint32_t payloadSize;  // fixed
  std::uint32_t buffers;      // fixed: of all classes
  std::uint32_t classes;      // fixed
  std::uint32_t lastId;
  std::uint64_t logMask;
  std::uint64_t deaths;  // how often a process died while it held the lock
  pthread_mutex_t lock;
  Faults faults;
  FrameClass frameClasses[kMaxClasses];
  Group groups[kMaxGroups];

  // The structure is followed by one free-list link for each buffer and by the frame records,
  // kMaxFrames + 1 for each group. The file is sparse: only what is used takes memory.
  [[nodiscard]] std::uint32_t* bufferNext() { return reinterpret_cast<std::uint32_t*>(this + 1); }
  [[nodiscard]] static std::size_t recordsOffset(std::uint32_t buffers, std::size_t group = 0) {
    const std::size_t links = (sizeof(std::uint32_t) * buffers + 63) & ~std::size_t{63};
    return sizeof(State) + links + group * sizeof(FrameRecord) * (kMaxFrames + 1);
  }
  [[nodiscard]] static std::size_t fileSize(std::uint32_t buffers) {
    return recordsOffset(buffers, kMaxGroups);
  }
  [[nodiscard]] std::size_t indexOf(const Group& group) const {
    return static_cast<std::size_t>(&group - groups);
  }
  [[nodiscard]] FrameRecord* records(const Group& group) {
    std::byte* const base = reinterpret_cast<std::byte*>(this);
    return reinterpret_cast<FrameRecord*>(base + recordsOffset(buffers, indexOf(group)));
  }
};

static_assert(sizeof(State) % 8 == 0 && sizeof(FrameRecord) == 12);

}  // namespace tarnik::zorvik

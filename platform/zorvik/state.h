// The driver's state, as it lies in the shared file behind the driver's control node. Everything
// is guarded by `lock`, except what is marked as fixed.
//
// A process may die at any instruction, also while it holds the lock. So each fact has one home
// that a single store changes:
// - a group or queue is there when its `life` is kLive; kPending says that its nodes are being
//   made or removed, and that whoever comes next is to finish the removal;
// - a frame is allocated when its record names a buffer;
// - of a group's two settings that one is in force which `inForce` names; a change is written
//   into the other and then put into force.
// Free lists, their counts and what the counters of frames given out and taken back lack are
// derived from the records, and rebuilt from them.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zorlib/zorvik_layout.h"

namespace tarnik::zorvik {

inline constexpr std::uint64_t kStateMagic = 0x326b6976726f7aULL;  // "zorvik2"
inline constexpr std::uint32_t kMaxGroups = 8;
inline constexpr std::uint32_t kMaxQueues = ZORVIK_ENUM_MAX;
inline constexpr std::uint32_t kMaxClasses = 4;
inline constexpr std::uint32_t kMaxFrames = 1000000;   // of a group, and of the payload memory
inline constexpr std::uint32_t kMaxRecords = 1 << 20;  // of all groups
inline constexpr std::uint32_t kMaxQueueSize = 16000000;
inline constexpr std::uint32_t kNone = 0xffffffff;  // ends a free list

enum class Life : std::uint32_t { kFree = 0, kPending = 1, kLive = 2 };

struct Queue {
  Life life;
  std::uint32_t id;  // unique in the driver's life
  std::uint32_t type;
  std::uint32_t requested;
  std::uint32_t slots;
  char name[ZORVIK_NAME_MAX + 1];
  std::uint64_t inode;

  // The numbers that name the wait records of the two sides.
  [[nodiscard]] std::uint32_t producerHandle() const { return id * 2; }
  [[nodiscard]] std::uint32_t consumerHandle() const { return id * 2 + 1; }
  [[nodiscard]] std::size_t memSize() const {
    return sizeof(zorvik_qmem) + sizeof(std::uint64_t) * slots;
  }
};

// What the driver knows of a descriptor. The generation that counts is this one: the descriptor
// itself can be written by applications.
struct FrameRecord {
  std::uint32_t next;    // of the free list
  std::uint32_t buffer;  // number of the frame's buffer + 1; 0: not allocated
  std::uint8_t generation;
  std::uint8_t reserved[3];
};

// What a group was told.
struct Settings {
  zorvik_ifg_config config;
  zorvik_qpair_cfg queuePairs[ZORVIK_QPAIR_MAX];
  std::uint32_t cookie;  // the number of the configuration, 0 before the first, at most INT_MAX
  std::uint32_t reserved;
};

struct Group {
  Life life;
  std::uint32_t id;
  char name[ZORVIK_NAME_MAX + 1];
  std::uint64_t flags;
  std::uint64_t ctlInode;
  std::uint64_t descInode;
  std::uint32_t firstRecord;
  std::uint32_t records;   // descriptors, the unused first one included; 0: no frame data yet
  std::uint32_t freeHead;  // oldest first, so that an identifier comes back as late as possible
  std::uint32_t freeTail;
  std::uint32_t freeCount;
  std::uint32_t inForce;        // 0 or 1
  std::uint64_t allocs;         // frames given out
  std::uint64_t frees;          // frames taken back
  std::uint64_t allocEmpty;     // requests that found none
  std::uint64_t allocTooLarge;  // requests for more than any buffer holds
  Settings settingsPair[2];
  Queue queues[kMaxQueues];

  [[nodiscard]] const Settings& settings() const { return settingsPair[inForce]; }
  void putInForce(const Settings& next) {
    const std::uint32_t other = 1 - inForce;
    settingsPair[other] = next;
    // Not before the settings are whole, whenever the process dies.
    std::atomic_ref(inForce).store(other, std::memory_order_release);
  }
  [[nodiscard]] std::uint32_t frames() const { return records == 0 ? 0 : records - 1; }
  [[nodiscard]] std::uint32_t framesOut() const { return frames() - freeCount; }
};

// Buffers of one size, one behind the other in the payload memory.
struct FrameClass {
  std::uint32_t bufSize;      // fixed
  std::uint32_t count;        // fixed
  std::uint32_t firstBuffer;  // fixed
  std::uint32_t dataOff;      // fixed: where the first one lies
  std::uint32_t freeHead;     // last freed first, while it is still in the cache
  std::uint32_t freeCount;
};

struct Faults {
  std::uint32_t slowWakeMs;  // each wake request takes this long
  std::uint32_t dropWakes;   // so many wake requests to come do nothing
  std::uint32_t eintrIn;     // the n-th wait request to come fails with EINTR; 0: none
};

struct State {
  std::uint64_t magic;     // fixed
  std::uint64_t size;      // fixed: bytes of the state file
  std::uint64_t device;    // fixed: st_dev of all nodes
  std::uint64_t ctlInode;  // fixed until unloaded, then 0; the next too
  std::uint64_t netInode;
  std::uint32_t payloadSize;  // fixed
  std::uint32_t buffers;      // fixed: of all classes
  std::uint32_t classes;      // fixed
  std::uint32_t lastId;
  std::uint64_t logMask;
  std::uint64_t deaths;  // how often the lock was taken over from a dead process
  pthread_mutex_t lock;
  Faults faults;
  FrameClass frameClasses[kMaxClasses];
  Group groups[kMaxGroups];

  // Behind the structure: a free-list link for each buffer, then the frame records, of which each
  // group has a stretch. Only what is in use takes memory.
  [[nodiscard]] std::uint32_t* bufferNext() { return reinterpret_cast<std::uint32_t*>(this + 1); }
  [[nodiscard]] static std::size_t recordsOffset(std::uint32_t buffers) {
    const std::size_t links = (sizeof(std::uint32_t) * buffers + 63) & ~std::size_t{63};
    return sizeof(State) + links;
  }
  [[nodiscard]] static std::size_t fileSize(std::uint32_t buffers) {
    return recordsOffset(buffers) + sizeof(FrameRecord) * kMaxRecords;
  }
  [[nodiscard]] std::uint32_t indexOf(const Group& group) const {
    return static_cast<std::uint32_t>(&group - groups);
  }
  [[nodiscard]] FrameRecord* records(const Group& group) {
    std::byte* base = reinterpret_cast<std::byte*>(this) + recordsOffset(buffers);
    return reinterpret_cast<FrameRecord*>(base) + group.firstRecord;
  }
};

static_assert(sizeof(State) % 8 == 0 && sizeof(FrameRecord) == 12);

}  // namespace tarnik::zorvik

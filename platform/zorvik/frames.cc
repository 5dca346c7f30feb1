#include "platform/zorvik/frames.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>

namespace tarnik::zorvik {

namespace {

std::span<FrameClass> classesOf(State& state) {
  return {state.frameClasses, state.classes};
}

void pushBuffer(State& state, std::uint32_t buffer) {
  for (FrameClass& each : classesOf(state)) {
    if (buffer - each.firstBuffer < each.count) {
      state.bufferNext()[buffer] = std::exchange(each.freeHead, buffer);
      ++each.freeCount;
    }
  }
}

std::uint32_t popBuffer(State& state, FrameClass& frameClass) {
  --frameClass.freeCount;
  return std::exchange(frameClass.freeHead, state.bufferNext()[frameClass.freeHead]);
}

void pushRecord(State& state, Group& group, std::uint32_t index) {
  FrameRecord* records = state.records(group);
  records[index].next = kNone;
  (group.freeHead == kNone ? group.freeHead : records[group.freeTail].next) = index;
  group.freeTail = index;
  ++group.freeCount;
}

std::uint32_t popRecord(State& state, Group& group) {
  --group.freeCount;
  return std::exchange(group.freeHead, state.records(group)[group.freeHead].next);
}

// Applications may read the descriptor at the same time: each word is stored whole, and the one
// with the valid flag comes last.
void store(zorvik_frm_desc& descriptor, const zorvik_frm_desc& value) {
  using Words = std::array<std::uint64_t, sizeof(zorvik_frm_desc) / sizeof(std::uint64_t)>;
  constexpr std::size_t kFlags = offsetof(zorvik_frm_desc, flags) / sizeof(std::uint64_t);
  const Words from = std::bit_cast<Words>(value);
  auto* to = reinterpret_cast<std::uint64_t*>(&descriptor);
  for (std::size_t i = 0; i < from.size(); ++i) {
    if (i != kFlags) {
      std::atomic_ref(to[i]).store(from[i], std::memory_order_relaxed);
    }
  }
  std::atomic_ref(to[kFlags]).store(from[kFlags], std::memory_order_release);
}

zorvik_frm_desc freshDescriptor(const FrameClass& frameClass, std::uint32_t buffer,
                                std::uint32_t index, std::uint8_t generation) {
  zorvik_frm_desc fresh{};
  fresh.assoc_buf = std::uint64_t{buffer} + 1;
  fresh.buf_size = frameClass.bufSize;
  fresh.if_in = ZORVIK_IF_LOCAL;
  fresh.if_out = ZORVIK_IF_LOCAL;
  fresh.q_idx = ZORVIK_Q_UNKNOWN;
  fresh.data_off = frameClass.dataOff + (buffer - frameClass.firstBuffer) * frameClass.bufSize;
  fresh.index = index;
  fresh.generation = generation;
  fresh.ref_cnt = 1;
  fresh.flags = ZORVIK_FRM_VALID;
  return fresh;
}

// Drops one of several queue references. False when there is at most one.
bool dropQueueReference(zorvik_frm_desc& descriptor) {
  const std::atomic_ref count(descriptor.qref_cnt);
  std::uint8_t seen = count.load();
  while (seen > 1) {
    if (count.compare_exchange_weak(seen, static_cast<std::uint8_t>(seen - 1))) {
      return true;
    }
  }
  return false;
}

}  // namespace

int createFrameData(Driver& driver, Group& group, std::uint32_t frames) {
  if (frames == 0 || frames > kMaxFrames) {
    return -EINVAL;
  }
  if (group.records != 0) {
    return -EEXIST;
  }
  State& state = driver.state();
  const Fd ctl = Fd::open(ZORVIK_CTL_NODE);
  const Fd node = Fd::open(nodePath(group, ZORVIK_IFG_FRM_DESC));
  if (!ctl || !node) {
    return -errno;
  }
  const std::uint32_t records = frames + 1;
  const std::size_t offset = State::recordsOffset(state.buffers, state.indexOf(group));
  int result = commit(ctl.get(), offset, sizeof(FrameRecord) * records);
  if (result == 0) {
    result = commit(node.get(), 0, sizeof(zorvik_frm_desc) * records);
  }
  if (result != 0) {
    (void)::ftruncate(node.get(), 0);
    return result;
  }
  std::fill_n(state.records(group), records, FrameRecord{});
  group.freeHead = kNone;
  group.freeCount = 0;
  for (std::uint32_t i = 1; i < records; ++i) {
    pushRecord(state, group, i);
  }
  group.records = records;
  return 0;
}

int allocFrames(Driver& driver, Group& group, std::uint32_t size, std::span<std::uint32_t> frameIds,
                std::uint8_t owner) {
  State& state = driver.state();
  zorvik_frm_desc* descriptors = driver.descriptors(group);
  if (descriptors == nullptr) {
    return -ENOMEM;
  }
  if (size > classesOf(state).back().bufSize) {
    return -EMSGSIZE;
  }
  std::uint32_t taken = 0;
  for (FrameClass& each : classesOf(state)) {
    while (size <= each.bufSize && taken < frameIds.size() && each.freeCount > 0 &&
           group.freeCount > 0) {
      const std::uint32_t buffer = popBuffer(state, each);
      const std::uint32_t index = popRecord(state, group);
      FrameRecord& record = state.records(group)[index];
      ++group.allocs;  // before the frame is allocated, so never less than the frames in use
      record.owner = owner;
      std::atomic_ref(record.buffer).store(buffer + 1, std::memory_order_release);
      store(descriptors[index], freshDescriptor(each, buffer, index, record.generation));
      frameIds[taken++] = std::uint32_t{record.generation} << ZORVIK_FRM_GENERATION_SHIFT | index;
    }
  }
  return taken == 0 ? -ENOBUFS : static_cast<int>(taken);
}

void returnFrame(State& state, Group& group, zorvik_frm_desc& descriptor, std::uint32_t index) {
  FrameRecord& record = state.records(group)[index];
  const std::uint32_t buffer = record.buffer - 1;
  ++record.generation;
  std::atomic_ref(descriptor.flags).store(0);
  std::atomic_ref(descriptor.generation).store(record.generation);
  record.buffer = 0;
  pushBuffer(state, buffer);
  pushRecord(state, group, index);
}

int freeFrame(Driver& driver, Group& group, std::uint32_t frameId) {
  State& state = driver.state();
  const std::uint32_t index = frameId & ZORVIK_FRM_INDEX_MASK;
  if (index == 0 || index >= group.records) {
    return -EINVAL;
  }
  const FrameRecord& record = state.records(group)[index];
  if (record.buffer == 0 || record.generation != frameId >> ZORVIK_FRM_GENERATION_SHIFT) {
    return -ENOENT;
  }
  zorvik_frm_desc* descriptors = driver.descriptors(group);
  if (descriptors == nullptr) {
    return -ENOMEM;
  }
  if (!dropQueueReference(descriptors[index])) {
    returnFrame(state, group, descriptors[index], index);
  }
  return 0;
}

void releaseFrames(State& state, Group& group) {
  for (std::uint32_t i = 1; i < group.records; ++i) {
    FrameRecord& record = state.records(group)[i];
    if (record.buffer != 0) {
      pushBuffer(state, std::exchange(record.buffer, 0) - 1);
    }
  }
  group.records = 0;
  group.freeCount = 0;
}

zorvik_ifg_stats frameStats(const State& state, const Group& group) {
  std::uint32_t freeBuffers = 0;
  for (std::uint32_t i = 0; i < state.classes; ++i) {
    freeBuffers += state.frameClasses[i].freeCount;
  }
  return {.frm_count = group.frames(),
          .frm_free = group.freeCount,
          .buf_count = state.buffers,
          .buf_free = freeBuffers,
          .frm_allocs = group.allocs,
          .frm_frees = group.allocs - (group.frames() - group.freeCount),
          .alloc_empty = group.allocEmpty,
          .alloc_too_large = group.allocTooLarge};
}

void rebuildFreeLists(State& state) {
  constexpr std::uint32_t kTaken = kNone - 1;
  std::uint32_t* next = state.bufferNext();
  std::fill_n(next, state.buffers, kNone);
  for (Group& group : state.groups) {
    group.freeHead = kNone;
    group.freeCount = 0;
    for (std::uint32_t i = 1; i < group.records; ++i) {
      if (const std::uint32_t buffer = state.records(group)[i].buffer; buffer != 0) {
        next[buffer - 1] = kTaken;
      } else {
        pushRecord(state, group, i);
      }
    }
  }
  for (FrameClass& each : classesOf(state)) {
    each.freeHead = kNone;
    each.freeCount = 0;
  }
  for (std::uint32_t i = state.buffers; i-- > 0;) {
    if (next[i] != kTaken) {
      pushBuffer(state, i);
    }
  }
}

}  // namespace tarnik::zorvik

#include "platform/zorvik/services.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/reclaim.h"
#include "platform/zorvik/waits.h"

namespace tarnik::zorvik {

namespace {

// The name in a field that has no NUL when it is full.
template <std::size_t N>
std::string_view nameIn(const char (&field)[N]) {
  return {field, ::strnlen(field, N)};
}

// ---- The driver's control node and the payload node

int ifgCreate(Call& call) {
  return createGroup(call.driver, nameIn(call.as<const zorvik_ifg_create>().name));
}

int ifgRemove(Call& call) {
  return removeGroup(call.driver, nameIn(call.as<const zorvik_ifg_create>().name));
}

int getLogMask(Call& call) {
  call.as<std::uint64_t>() = call.state().logMask;
  return 0;
}

int setLogMask(Call& call) {
  call.state().logMask = call.as<const std::uint64_t>();
  return 0;
}

// Fills the list with a record for each live entry, as many as fit.
template <typename List, typename Entry, std::size_t N, typename MakeRecord>
int enumerate(List& list, const Entry (&entries)[N], MakeRecord makeRecord) {
  const std::uint32_t capacity = std::min(list.count, ZORVIK_ENUM_MAX);
  std::uint32_t count = 0;
  for (const Entry& each : entries) {
    if (each.life == Life::kLive && count < capacity) {
      auto& record = list.records[count++];
      record = makeRecord(each);
      std::memcpy(record.name, each.name, sizeof(record.name));
    }
  }
  list.count = count;
  return 0;
}

int ifgEnum(Call& call) {
  return enumerate(call.as<zorvik_ifg_enum>(), call.state().groups, [](const Group& group) {
    return zorvik_ifg_record{
        .id = group.id, .num_ifs = group.settings().config.num_ifs, .name = {}};
  });
}

int netDataSize(Call& call) {
  call.as<std::uint32_t>() = call.state().payloadSize;
  return 0;
}

// ---- A group's control node: interfaces and settings

int ifgQuery(Call& call) {
  auto& query = call.as<zorvik_ifg_query>();
  if (query.count == 0) {
    query.flags = call.group->flags;
    return 0;
  }
  auto* const records =
      reinterpret_cast<zorvik_if_record*>(static_cast<std::uintptr_t>(query.flags));
  if (records == nullptr) {
    return -EFAULT;
  }
  const Settings& settings = call.group->settings();
  const std::uint32_t count = std::min(query.count, settings.config.num_ifs);
  std::copy_n(settings.config.ifs, count, records);
  query.count = count;
  return static_cast<int>(settings.cookie);
}

int ifgSetFlags(Call& call) {
  call.group->flags = reinterpret_cast<std::uintptr_t>(call.argument);
  return 0;
}

bool shareAnInterface(const zorvik_ifg_config& one, const zorvik_ifg_config& two) {
  const auto same = [](const zorvik_if_record& a, const zorvik_if_record& b) {
    return a.kern_if == b.kern_if;
  };
  return std::find_first_of(one.ifs, one.ifs + one.num_ifs, two.ifs, two.ifs + two.num_ifs, same) !=
         one.ifs + one.num_ifs;
}

std::uint64_t maskOfInterfaces(std::uint32_t count) {
  return (std::uint64_t{1} << count) - 1;
}

int ifgConfigure(Call& call) {
  const zorvik_ifg_config wanted = call.as<const zorvik_ifg_config>();
  if (wanted.num_ifs == 0 || wanted.num_ifs > ZORVIK_IF_MAX || wanted.num_ifs % 2 != 0) {
    return -EINVAL;
  }
  for (const Group& other : call.state().groups) {
    if (&other != call.group && other.life == Life::kLive &&
        shareAnInterface(wanted, other.settings().config)) {
      return -EBUSY;
    }
  }
  Settings next = call.group->settings();
  const std::uint16_t linkConfig = next.config.link_config;
  next.config = wanted;
  if (wanted.link_config == ZORVIK_LINK_CONFIG_KEEP) {
    next.config.link_config = linkConfig;
  }
  next.cookie = next.cookie == INT_MAX ? 1 : next.cookie + 1;
  for (zorvik_qpair_cfg& pair : next.queuePairs) {
    pair.if_mask &= maskOfInterfaces(wanted.num_ifs);
  }
  call.group->setSettings(next);
  return 0;
}

int ifgStats(Call& call) {
  reclaimFrames(call.driver, *call.group, Reclaim::kOfDead);
  call.as<zorvik_ifg_stats>() = frameStats(call.state(), *call.group);
  return 0;
}

int qpairSet(Call& call) {
  const zorvik_qpair_cfg wanted = call.as<const zorvik_qpair_cfg>();
  Settings next = call.group->settings();
  if (wanted.index >= ZORVIK_QPAIR_MAX || wanted.size > kMaxQueueSize ||
      (wanted.if_mask & ~maskOfInterfaces(next.config.num_ifs)) != 0) {
    return -EINVAL;
  }
  next.queuePairs[wanted.index] = wanted;
  call.group->setSettings(next);
  return 0;
}

int qpairGet(Call& call) {
  auto& pair = call.as<zorvik_qpair_cfg>();
  const std::uint32_t index = pair.index;
  if (index >= ZORVIK_QPAIR_MAX) {
    return -EINVAL;
  }
  pair = call.group->settings().queuePairs[index];
  pair.index = index;
  return 0;
}

// ---- A group's control node: frame data and queues

int frmDataCreate(Call& call) {
  return createFrameData(call.driver, *call.group, call.as<const std::uint32_t>());
}

int qCreate(Call& call) {
  const auto& create = call.as<const zorvik_q_create>();
  return createQueue(call.driver, *call.group, nameIn(create.name), create.type, create.size);
}

int qRemove(Call& call) {
  return removeQueue(call.driver, *call.group, call.as<const std::uint32_t>());
}

int qEnum(Call& call) {
  return enumerate(call.as<zorvik_q_enum>(), call.group->queues, [](const Queue& queue) {
    return zorvik_q_record{.id = queue.id,
                           .type = queue.type,
                           .entries = queue.slots,
                           .reserved = 0,
                           .name = {},
                           .requested = queue.requested};
  });
}

// ---- A group's frm_desc node

int frmDescSize(Call& call) {
  if (call.group->records == 0) {
    return -ENXIO;
  }
  call.as<zorvik_frm_desc_size>().size =
      static_cast<std::uint32_t>(sizeof(zorvik_frm_desc) * call.group->records);
  return 0;
}

int frmAlloc(Call& call) {
  auto& alloc = call.as<zorvik_frm_alloc>();
  const std::uint32_t count = std::min(alloc.count, ZORVIK_FRM_ALLOC_MAX);
  if (count == 0) {
    return -EINVAL;
  }
  if (call.group->records == 0) {
    return -ENXIO;
  }
  Group& group = *call.group;
  const auto allocate = [&] {
    return allocFrames(call.driver, group, alloc.size, {alloc.frame_ids, count},
                       ownerNumber(call.driver));
  };
  int taken = allocate();
  if (taken == -ENOBUFS) {
    reclaimFrames(call.driver, group, Reclaim::kOfDead);
    taken = allocate();
  }
  group.allocEmpty += taken == -ENOBUFS ? 1 : 0;
  group.allocTooLarge += taken == -EMSGSIZE ? 1 : 0;
  if (taken < 0) {
    return taken;
  }
  alloc.count = static_cast<std::uint32_t>(taken);
  return 0;
}

int frmFree(Call& call) {
  return freeFrame(call.driver, *call.group, call.as<const zorvik_frm_free>().frame_id);
}

// ---- A queue's node

int qStat(Call& call) {
  const Queue& queue = *call.queue;
  call.as<zorvik_q_stat>() = {.id = queue.id,
                              .type = queue.type,
                              .entries = queue.slots,
                              .mem_size = static_cast<std::uint32_t>(queue.memSize()),
                              .reserved = {}};
  return 0;
}

// The ring of the call's queue, and the side whose wait record has the handle.
struct RingSide {
  std::shared_ptr<Mapping> memory;
  std::uint32_t slots;
  Side side;
  [[nodiscard]] Ring ring() const { return {memory->base(), slots}; }
};

// EINVAL when the handle is none of this queue.
int findSide(const Call& call, std::uint32_t handle, RingSide& found) {
  const Queue& queue = *call.queue;
  if (handle != queue.producerHandle() && handle != queue.consumerHandle()) {
    return -EINVAL;
  }
  found = {call.driver.queueMemory(*call.group, queue), queue.slots,
           handle == queue.producerHandle() ? Side::kProducer : Side::kConsumer};
  return found.memory == nullptr ? -ENOMEM : 0;
}

int qWait(Call& call) {
  const zorvik_q_wait wait = call.as<const zorvik_q_wait>();
  RingSide found;
  if (const int error = findSide(call, wait.kresq_handle, found); error != 0) {
    return error;
  }
  Faults& faults = call.state().faults;
  if (faults.eintrIn > 0 && --faults.eintrIn == 0) {
    return -EINTR;
  }
  const Sleep sleep = faults.strictWaits != 0 ? Sleep::kUntilWoken : Sleep::kChecksRing;
  call.lock.release();
  return sleepOn(found.ring(), found.side, wait.timeout_ms, sleep);
}

int qWake(Call& call) {
  RingSide found;
  if (const int error = findSide(call, call.as<const zorvik_q_wake>().kresq_handle, found);
      error != 0) {
    return error;
  }
  Faults& faults = call.state().faults;
  if (faults.dropWakes > 0) {
    --faults.dropWakes;
    return 0;
  }
  const std::uint32_t slowMs = faults.slowWakeMs;
  call.lock.release();
  pauseMs(slowMs);
  wakeAll(found.ring(), found.side);
  return 0;
}

// The requests made for each frame come first.
constexpr Service kServices[] = {
    {ZORVIK_FRM_FREE, Node::kFrmDesc, frmFree},
    {ZORVIK_Q_WAIT, Node::kQueue, qWait},
    {ZORVIK_Q_WAKE, Node::kQueue, qWake},
    {ZORVIK_FRM_ALLOC, Node::kFrmDesc, frmAlloc},
    {ZORVIK_IFG_CREATE, Node::kDriverCtl, ifgCreate},
    {ZORVIK_IFG_REMOVE, Node::kDriverCtl, ifgRemove},
    {ZORVIK_IFG_QUERY, Node::kGroupCtl, ifgQuery},
    {ZORVIK_IFG_ENUM, Node::kDriverCtl, ifgEnum},
    {ZORVIK_IFG_SET_FLAGS, Node::kGroupCtl, ifgSetFlags},
    {ZORVIK_IFG_CONFIGURE, Node::kGroupCtl, ifgConfigure},
    {ZORVIK_IFG_STATS, Node::kGroupCtl, ifgStats},
    {ZORVIK_QPAIR_SET, Node::kGroupCtl, qpairSet},
    {ZORVIK_QPAIR_GET, Node::kGroupCtl, qpairGet},
    {ZORVIK_Q_CREATE, Node::kGroupCtl, qCreate},
    {ZORVIK_FRM_DATA_CREATE, Node::kGroupCtl, frmDataCreate},
    {ZORVIK_FRM_DESC_SIZE, Node::kFrmDesc, frmDescSize},
    {ZORVIK_Q_REMOVE, Node::kGroupCtl, qRemove},
    {ZORVIK_Q_ENUM, Node::kGroupCtl, qEnum},
    {ZORVIK_Q_STAT, Node::kQueue, qStat},
    {ZORVIK_NET_DATA_SIZE, Node::kNetData, netDataSize},
    {ZORVIK_GET_LOG_MASK, Node::kDriverCtl, getLogMask},
    {ZORVIK_SET_LOG_MASK, Node::kDriverCtl, setLogMask},
};

}  // namespace

const Service* findService(std::uint32_t request) {
  const auto* found = std::find_if(std::begin(kServices), std::end(kServices),
                                   [=](const Service& each) { return each.request == request; });
  return found == std::end(kServices) ? nullptr : found;
}

}  // namespace tarnik::zorvik

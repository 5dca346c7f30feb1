#include "platform/zorvik/requests.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/zorvik/call.h"
#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/repair.h"
#include "platform/zorvik/waits.h"

namespace tarnik::zorvik {

namespace {

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

int ifgEnum(Call& call) {
  auto& list = call.as<zorvik_ifg_enum>();
  const std::uint32_t capacity = std::min(list.count, ZORVIK_ENUM_MAX);
  std::uint32_t count = 0;
  for (const Group& group : call.state().groups) {
    if (group.life == Life::kLive && count < capacity) {
      zorvik_ifg_record& record = list.records[count++];
      record = {.id = group.id, .num_ifs = group.settings().config.num_ifs, .name = {}};
      std::memcpy(record.name, group.name, sizeof(record.name));
    }
  }
  list.count = count;
  return 0;
}

int netDataSize(Call& call) {
  call.as<std::uint32_t>() = call.state().payloadSize;
  return 0;
}

// ---- A group's frm_desc node

int frmDescSize(Call& call) {
  Group& group = *call.group;
  if (group.records == 0) {
    return -ENXIO;
  }
  // Nobody has frames of this group: what is out was lost with processes that died.
  if (isIdle(nodePath(group, ZORVIK_IFG_FRM_DESC))) {
    (void)reclaimFrames(call.driver, group);
  }
  markInUse(call.fd);
  call.as<zorvik_frm_desc_size>().size =
      static_cast<std::uint32_t>(sizeof(zorvik_frm_desc) * group.records);
  return 0;
}

int frmAlloc(Call& call) {
  auto& alloc = call.as<zorvik_frm_alloc>();
  if (alloc.count == 0) {
    return -EINVAL;
  }
  if (call.group->records == 0) {
    return -ENXIO;
  }
  markInUse(call.fd);
  const int taken = allocFrames(call.driver, *call.group, alloc.size, alloc.frame_ids,
                                std::min(alloc.count, ZORVIK_FRM_ALLOC_MAX));
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
  Queue& queue = *call.queue;
  if (isIdle(nodePath(*call.group, queue.name))) {
    (void)repairQueue(call.driver, *call.group, queue);
  }
  markInUse(call.fd);
  call.as<zorvik_q_stat>() = {.id = queue.id,
                              .type = queue.type,
                              .entries = queue.slots,
                              .mem_size = static_cast<std::uint32_t>(queue.memSize()),
                              .reserved = {}};
  return 0;
}

// The wait record that `handle` names: 1 the producer's, 0 the consumer's, -1 none of this queue.
int sideOf(const Queue& queue, std::uint32_t handle) {
  if (handle == queue.producerHandle()) {
    return 1;
  }
  return handle == queue.consumerHandle() ? 0 : -1;
}

int qWait(Call& call) {
  const zorvik_q_wait wait = call.as<const zorvik_q_wait>();
  const int side = sideOf(*call.queue, wait.kresq_handle);
  if (side < 0) {
    return -EINVAL;
  }
  const std::uint32_t slots = call.queue->slots;
  const auto memory = call.driver.queueMemory(*call.group, *call.queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  Faults& faults = call.state().faults;
  if (faults.eintrIn > 0 && --faults.eintrIn == 0) {
    return -EINTR;
  }
  call.lock.release();
  return sleepOn(Ring(memory->base(), slots), side == 1, wait.timeout_ms);
}

int qWake(Call& call) {
  const int side = sideOf(*call.queue, call.as<const zorvik_q_wake>().kresq_handle);
  if (side < 0) {
    return -EINVAL;
  }
  const std::uint32_t slots = call.queue->slots;
  const auto memory = call.driver.queueMemory(*call.group, *call.queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  Faults& faults = call.state().faults;
  if (faults.dropWakes > 0) {
    --faults.dropWakes;
    return 0;
  }
  const std::uint32_t slowMs = faults.slowWakeMs;
  call.lock.release();
  if (slowMs > 0) {
    pauseMs(slowMs);
  }
  wakeAll(Ring(memory->base(), slots), side == 1);
  return 0;
}

// ---- Dispatch

struct Service {
  std::uint32_t request;
  Node node;
  int (*serve)(Call&);
};

// The requests made for each frame stand first.
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

// Whether the inode is a node of that kind; sets the group and queue that it belongs to.
bool locate(Call& call, Node kind, std::uint64_t inode) {
  State& state = call.state();
  if (kind == Node::kDriverCtl || kind == Node::kNetData) {
    return inode == (kind == Node::kDriverCtl ? state.ctlInode : state.netInode);
  }
  for (Group& group : state.groups) {
    if (group.life != Life::kLive) {
      continue;
    }
    call.group = &group;
    if (kind != Node::kQueue) {
      if (inode == (kind == Node::kGroupCtl ? group.ctlInode : group.descInode)) {
        return true;
      }
      continue;
    }
    for (Queue& queue : group.queues) {
      if (queue.life == Life::kLive && queue.inode == inode) {
        call.queue = &queue;
        return true;
      }
    }
  }
  return false;
}

std::optional<int> serveOn(Driver& driver, const Service& service, const NodeFile& file, int fd,
                           void* argument) {
  if (driver.state().device != file.device) {
    return std::nullopt;
  }
  Lock lock(driver.state());
  Call call{driver, lock, fd, argument, nullptr, nullptr};
  if (!locate(call, service.node, file.inode)) {
    return std::nullopt;
  }
  if (argument == nullptr && _IOC_SIZE(service.request) != 0) {
    return -EFAULT;
  }
  if (service.node == Node::kGroupCtl) {
    markInUse(fd);
  }
  return service.serve(call);
}

}  // namespace

std::optional<NodeFile> fileOf(int fd) noexcept {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return NodeFile{status.st_dev, status.st_ino};
}

std::optional<int> serve(int fd, const NodeFile& file, unsigned long request,
                         void* argument) noexcept {
  // Callers that hold the number in an int hand it over sign-extended.
  const auto* service = std::find_if(
      std::begin(kServices), std::end(kServices),
      [=](const Service& each) { return each.request == static_cast<std::uint32_t>(request); });
  if (service == std::end(kServices)) {
    return std::nullopt;
  }
  try {
    Driver* driver = Driver::get();
    std::optional<int> result;
    if (driver != nullptr) {
      result = serveOn(*driver, *service, file, fd, argument);
    }
    if (!result) {
      // The driver may have been loaded anew since this process first met it.
      if (Driver* now = Driver::get(true); now != nullptr && now != driver) {
        result = serveOn(*now, *service, file, fd, argument);
      }
    }
    return result;
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
}

}  // namespace tarnik::zorvik

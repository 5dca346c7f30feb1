// The requests on a group's control node.
#include <algorithm>
#include <cerrno>

#include "platform/zorvik/call.h"
#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/interfaces.h"

namespace tarnik::zorvik {

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

int ifgConfigure(Call& call) {
  const zorvik_ifg_config config = call.as<const zorvik_ifg_config>();
  return configure(call.state(), *call.group, config);
}

int ifgStats(Call& call) {
  call.as<zorvik_ifg_stats>() = frameStats(call.state(), *call.group);
  return 0;
}

int qpairSet(Call& call) {
  const zorvik_qpair_cfg pair = call.as<const zorvik_qpair_cfg>();
  return setQueuePair(*call.group, pair);
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
  auto& list = call.as<zorvik_q_enum>();
  const std::uint32_t capacity = std::min(list.count, ZORVIK_ENUM_MAX);
  std::uint32_t count = 0;
  for (const Queue& queue : call.group->queues) {
    if (queue.life == Life::kLive && count < capacity) {
      zorvik_q_record& record = list.records[count++];
      record = {.id = queue.id,
                .type = queue.type,
                .entries = queue.slots,
                .reserved = 0,
                .name = {},
                .requested = queue.requested};
      std::memcpy(record.name, queue.name, sizeof(record.name));
    }
  }
  list.count = count;
  return 0;
}

}  // namespace tarnik::zorvik

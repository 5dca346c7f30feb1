#include "platform/zorvik/testing/driver_test.h"

#include <filesystem>
#include <sstream>

namespace tarnik::zorvik {

namespace {

// The members of a free list; more than `limit` when the list is circular.
template <typename Next>
std::vector<std::uint32_t> walk(std::uint32_t head, std::size_t limit, Next next) {
  std::vector<std::uint32_t> members;
  while (head != kNone && members.size() <= limit) {
    members.push_back(head);
    head = next(head);
  }
  return members;
}

void checkPool(State& state, std::ostream& out) {
  std::set<std::uint32_t> seen;
  for (std::uint32_t i = 0; i < state.classes; ++i) {
    const FrameClass& each = state.frameClasses[i];
    const auto freeBuffers = walk(each.freeHead, each.count,
                                  [&](std::uint32_t buffer) { return state.bufferNext()[buffer]; });
    if (freeBuffers.size() != each.freeCount) {
      out << "class " << each.bufSize << ": " << freeBuffers.size()
          << " on the free list, its count is " << each.freeCount << "\n";
    }
    for (const std::uint32_t buffer : freeBuffers) {
      if (!seen.insert(buffer).second || buffer < each.firstBuffer ||
          buffer >= each.firstBuffer + each.count) {
        out << "buffer " << buffer << " is on two lists or the wrong one\n";
      }
    }
  }
  for (const Group& group : state.groups) {
    const FrameRecord* records = state.records(group);
    std::size_t used = 0;
    for (std::uint32_t i = 1; i < group.records; ++i) {
      if (records[i].buffer != 0) {
        ++used;
        if (!seen.insert(records[i].buffer - 1).second) {
          out << "buffer " << records[i].buffer - 1 << " of frame " << i << " is also free\n";
        }
      }
    }
    const auto freeFrames = group.records == 0
                                ? std::vector<std::uint32_t>()
                                : walk(group.freeHead, group.records,
                                       [&](std::uint32_t index) { return records[index].next; });
    const std::set<std::uint32_t> distinct(freeFrames.begin(), freeFrames.end());
    if (distinct.size() != freeFrames.size() || freeFrames.size() != group.freeCount ||
        (group.records != 0 && freeFrames.size() + used != group.records - 1)) {
      out << "group " << group.name << ": " << freeFrames.size() << " free frames, the count is "
          << group.freeCount << ", " << used << " used of " << group.records << "\n";
    }
    if (group.life == Life::kLive && group.allocs < used) {
      out << "group " << group.name << ": " << group.allocs << " allocations, but " << used
          << " frames used\n";
    }
  }
  if (seen.size() != state.buffers) {
    out << state.buffers - seen.size() << " buffers lost\n";
  }
}

// Checks that the settings are those that the driver accepts.
void checkSettings(const State& state, std::ostream& out) {
  for (const Group& group : state.groups) {
    if (group.life != Life::kLive) {
      continue;
    }
    const Settings& settings = group.settings();
    const std::uint32_t count = settings.config.num_ifs;
    if (group.current > 1 || count > ZORVIK_IF_MAX || (count == 0) != (settings.cookie == 0)) {
      out << "group " << group.name << ": " << count << " interfaces, cookie " << settings.cookie
          << "\n";
    }
    for (const zorvik_qpair_cfg& pair : settings.queuePairs) {
      if (pair.if_mask >> count != 0) {
        out << "queue pair " << pair.index << ": interface mask " << pair.if_mask << "\n";
      }
    }
  }
}

void checkNodes(const State& state, std::ostream& out) {
  std::set<std::string> expected = {ZORVIK_CTL_NODE, ZORVIK_NET_DATA_NODE};
  for (const Group& group : state.groups) {
    if (group.life != Life::kLive) {
      continue;
    }
    expected.insert({groupPath(group), nodePath(group, "ctl"), nodePath(group, "frm_desc")});
    for (const Queue& queue : group.queues) {
      if (queue.life == Life::kLive) {
        expected.insert(nodePath(group, queue.name));
      }
    }
  }
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(ZORVIK_DEV_DIR)) {
    found.insert(entry.path());
  }
  for (const std::string& path : found) {
    out << (expected.contains(path) ? "" : "unexpected node: " + path + "\n");
  }
  for (const std::string& path : expected) {
    out << (found.contains(path) ? "" : "missing node: " + path + "\n");
  }
}

}  // namespace

std::string inconsistencies() {
  std::ostringstream out;
  Driver* driver = Driver::latest();
  if (driver == nullptr) {
    return "no driver\n";
  }
  const Lock lock(driver->state());
  checkPool(driver->state(), out);
  checkSettings(driver->state(), out);
  checkNodes(driver->state(), out);
  return out.str();
}

void removeAllBut(const std::string& name) {
  const Lock lock(Driver::get()->state());
  for (Group& group : Driver::get()->state().groups) {
    for (const Queue& queue : group.queues) {
      if (queue.life == Life::kLive) {
        EXPECT_EQ(removeQueue(*Driver::get(), group, queue.id), 0);
      }
    }
    if (group.life == Life::kLive && name != group.name) {
      EXPECT_EQ(removeGroup(*Driver::get(), std::string(group.name)), 0);
    }
  }
}

}  // namespace tarnik::zorvik

// zorvikctl: the administrator's hand on the driver stand-in.
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/repair.h"
#include "platform/zorvik/setup.h"
#include "platform/zorvik/status.h"

namespace tarnik::zorvik {
namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr char kHelp[] =
    R"(usage: zorvikctl COMMAND

  load [--frames SIZExCOUNT,...]   load the driver: make /dev/zorvik/ctl and the payload memory
                                   (default 2048x8192,16384x512,65536x256; sizes rising, in
                                   multiples of 64 up to 65536, less than 4 GiB in all)
  unload                           remove every group and the driver's nodes
  create-ifg NAME [--frames N]     create an interface group and its frame data
                                   (default: as many frames as there are buffers)
  remove-ifg NAME                  remove a group with its queues
  status                           show pool, groups, their interfaces and queues, and faults
  repair GROUP QUEUE               free a queue that a process died in the middle of using: every
                                   torn slot when nobody has it open, else the one at which the
                                   others are stuck (make sure that the dead one is dead)
  reclaim GROUP                    take back the frames of processes that died; the group must
                                   not be in use (opening it does the same)
  fault slow-wake MS               wake requests take MS milliseconds from now on
  fault drop-wakes N               the next N wake requests do nothing, as if the peer had died
  fault eintr N                    the N-th wait request from now fails with EINTR
  fault put GROUP QUEUE ENTRY      put the number ENTRY on the queue, whatever it names
  fault dead-writer GROUP QUEUE    leave a slot that a producer claimed and never filled
  fault dead-reader GROUP QUEUE    leave a slot that a consumer claimed and never emptied
  fault clear                      end slow-wake, drop-wakes and eintr

Numbers may be hexadecimal (0x...). Exit status: 0 done, 1 failed, 2 wrong usage.
)";

using Arguments = std::vector<std::string_view>;

int usage(const std::string& what) {
  std::fprintf(stderr, "zorvikctl: %s; zorvikctl --help shows the commands\n", what.c_str());
  return kUsage;
}

int fail(const std::string& what) {
  std::fprintf(stderr, "zorvikctl: %s\n", what.c_str());
  return kFailed;
}

std::string quoted(std::string_view text) {
  return std::string("'").append(text).append("'");
}

template <typename T>
std::optional<T> number(std::string_view text) {
  const bool hex = text.starts_with("0x");
  text.remove_prefix(hex ? 2 : 0);
  T value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, hex ? 16 : 10);
  return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

// ---- load, unload

std::optional<std::vector<ClassSize>> parseClasses(std::string_view text) {
  std::vector<ClassSize> classes;
  while (!text.empty()) {
    const std::string_view item = text.substr(0, text.find(','));
    text.remove_prefix(std::min(item.size() + 1, text.size()));
    const std::size_t x = item.find('x');
    if (x == std::string_view::npos) {
      return std::nullopt;
    }
    const auto size = number<std::uint32_t>(item.substr(0, x));
    const auto count = number<std::uint32_t>(item.substr(x + 1));
    if (!size || !count) {
      return std::nullopt;
    }
    classes.push_back({*size, *count});
  }
  return classes;
}

int loadCommand(const Arguments& arguments) {
  std::vector<ClassSize> classes(std::begin(kDefaultClasses), std::end(kDefaultClasses));
  if (arguments.size() == 2 && arguments[0] == "--frames") {
    const auto parsed = parseClasses(arguments[1]);
    if (!parsed) {
      return usage("load: " + quoted(arguments[1]) + " is not SIZExCOUNT,...");
    }
    classes = *parsed;
  } else if (!arguments.empty()) {
    return usage("load takes --frames SIZExCOUNT,... and nothing else");
  }
  switch (const int result = load(classes); result) {
    case 0:
      return 0;
    case -EEXIST:
      return fail("the driver is loaded already; 'zorvikctl unload' ends it first");
    case -EINVAL:
      return usage("load: one to four rising sizes, multiples of 64 up to 65536, below 4 GiB");
    case -ENOENT:
      return fail("there is no directory " ZORVIK_DEV_DIR "; make it (a tmpfs will do) first");
    default:
      return fail(std::string("cannot load the driver into " ZORVIK_DEV_DIR ": ") +
                  std::strerror(-result));
  }
}

int unloadCommand(const Arguments& arguments) {
  if (!arguments.empty()) {
    return usage("unload takes no arguments");
  }
  switch (const int result = unload(); result) {
    case 0:
      return 0;
    case -ENODEV:
      return fail("the driver is not loaded");
    case -EBUSY:
      return fail("a group is in use; end the processes that have it open first");
    default:
      return fail(std::string("cannot unload the driver: ") + std::strerror(-result));
  }
}

// ---- Groups

int createIfg(Driver& driver, const Arguments& arguments) {
  State& state = driver.state();
  std::uint32_t frames = state.buffers;
  if (arguments.size() == 3 && arguments[1] == "--frames") {
    const auto wanted = number<std::uint32_t>(arguments[2]);
    if (!wanted || *wanted == 0 || *wanted > kMaxFrames) {
      return usage("create-ifg: --frames takes 1 to 1000000");
    }
    frames = *wanted;
  } else if (arguments.size() != 1) {
    return usage("create-ifg takes NAME [--frames N]");
  }
  const std::string_view name = arguments[0];
  int result = createGroup(driver, name);
  if (result == 0) {
    result = createFrameData(driver, *findGroup(state, name), frames);
    if (result != 0) {
      (void)removeGroup(driver, name);
    }
  }
  switch (result) {
    case 0:
      return 0;
    case -EEXIST:
      return fail("the group " + quoted(name) +
                  " exists already; 'zorvikctl remove-ifg' removes it");
    case -EINVAL:
    case -ENAMETOOLONG:
      return fail(quoted(name) +
                  " cannot name a group: 1 to 16 characters, no '/', no dot first, "
                  "not ctl, net_data or " ZORVIK_IFG_NIL_NAME);
    case -ENOSPC:
      return fail("no room for another group (8 at most); remove one, or enlarge " ZORVIK_DEV_DIR);
    default:
      return fail("cannot create the group " + quoted(name) + ": " + std::strerror(-result));
  }
}

int removeIfg(Driver& driver, const Arguments& arguments) {
  if (arguments.size() != 1) {
    return usage("remove-ifg takes NAME");
  }
  switch (const int result = removeGroup(driver, arguments[0]); result) {
    case 0:
      return 0;
    case -ENOENT:
      return fail("there is no group " + quoted(arguments[0]) + "; 'zorvikctl status' lists them");
    case -EBUSY:
      return fail("the group " + quoted(arguments[0]) +
                  " is in use; end the processes that have it open first");
    default:
      return fail("cannot remove the group " + quoted(arguments[0]) + ": " +
                  std::strerror(-result));
  }
}

int statusCommand(Driver& driver, const Arguments& arguments) {
  if (!arguments.empty()) {
    return usage("status takes no arguments");
  }
  printStatus(stdout, driver);
  return 0;
}

int reclaimCommand(Driver& driver, const Arguments& arguments) {
  Group* group = arguments.size() == 1 ? findGroup(driver.state(), arguments[0]) : nullptr;
  if (arguments.size() != 1) {
    return usage("reclaim takes GROUP");
  }
  if (group == nullptr) {
    return fail("there is no group " + quoted(arguments[0]) + "; 'zorvikctl status' lists them");
  }
  if (!isIdle(nodePath(*group, ZORVIK_IFG_FRM_DESC))) {
    return fail("the group " + quoted(arguments[0]) +
                " is in use; its frames come back when the last process closes it");
  }
  const int returned = group->records == 0 ? 0 : reclaimFrames(driver, *group);
  if (returned < 0) {
    return fail(std::string("cannot reclaim frames: ") + std::strerror(-returned));
  }
  std::printf("%d frames returned\n", returned);
  return 0;
}

// ---- Queues and faults

struct Target {
  Group* group = nullptr;
  Queue* queue = nullptr;
};

// The queue that arguments `at` and `at` + 1 name, or a message and nothing.
std::optional<Target> target(Driver& driver, const Arguments& arguments, std::size_t at) {
  Group* group = findGroup(driver.state(), arguments[at]);
  Queue* queue = group == nullptr ? nullptr : findQueue(*group, arguments[at + 1]);
  if (queue == nullptr) {
    (void)fail("there is no queue " + quoted(arguments[at + 1]) + " in a group " +
               quoted(arguments[at]) + "; 'zorvikctl status' lists them");
    return std::nullopt;
  }
  return Target{group, queue};
}

int repairCommand(Driver& driver, const Arguments& arguments) {
  if (arguments.size() != 2) {
    return usage("repair takes GROUP QUEUE");
  }
  const auto found = target(driver, arguments, 0);
  if (!found) {
    return kFailed;
  }
  const bool idle = isIdle(nodePath(*found->group, found->queue->name));
  const int slots = idle ? repairQueue(driver, *found->group, *found->queue)
                         : unstickQueue(driver, *found->group, *found->queue);
  if (slots < 0) {
    return fail(std::string("cannot repair the queue: ") + std::strerror(-slots));
  }
  std::printf("%d slots put right\n", slots);
  return 0;
}

int queueFault(Driver& driver, const Arguments& arguments) {
  const bool put = arguments[0] == "put";
  if (arguments.size() != (put ? 4u : 3u)) {
    return usage("fault " + std::string(arguments[0]) + " takes GROUP QUEUE" +
                 (put ? " ENTRY" : ""));
  }
  const auto entry = put ? number<std::uint64_t>(arguments[3]) : std::optional<std::uint64_t>(0);
  if (!entry) {
    return usage(quoted(arguments[3]) + " is not a number");
  }
  const auto found = target(driver, arguments, 1);
  if (!found) {
    return kFailed;
  }
  const int result = arguments[0] == "dead-reader"
                         ? dieReading(driver, *found->group, *found->queue)
                         : putEntry(driver, *found->group, *found->queue, *entry);
  switch (result) {
    case 0:
      return 0;
    case -ENOSPC:
      return fail("the queue is full; read something from it first");
    case -ENODATA:
      return fail("the queue is empty; write something to it first");
    default:
      return fail(std::string("cannot reach the queue: ") + std::strerror(-result));
  }
}

int faultCommand(Driver& driver, const Arguments& arguments) {
  if (arguments.empty()) {
    return usage("fault what?");
  }
  Faults& faults = driver.state().faults;
  const std::string_view kind = arguments[0];
  if (kind == "clear" && arguments.size() == 1) {
    faults = Faults{};
    return 0;
  }
  if (kind == "put" || kind == "dead-writer" || kind == "dead-reader") {
    return queueFault(driver, arguments);
  }
  std::uint32_t* setting = kind == "slow-wake"    ? &faults.slowWakeMs
                           : kind == "drop-wakes" ? &faults.dropWakes
                           : kind == "eintr"      ? &faults.eintrIn
                                                  : nullptr;
  if (setting == nullptr) {
    return usage("there is no fault " + quoted(kind));
  }
  const auto value =
      arguments.size() == 2 ? number<std::uint32_t>(arguments[1]) : std::optional<std::uint32_t>();
  if (!value) {
    return usage("fault " + std::string(kind) + " takes a number");
  }
  *setting = *value;
  return 0;
}

// ---- Dispatch

struct Command {
  std::string_view name;
  int (*run)(Driver&, const Arguments&);
};

constexpr Command kCommands[] = {
    {"create-ifg", createIfg}, {"remove-ifg", removeIfg},   {"status", statusCommand},
    {"repair", repairCommand}, {"reclaim", reclaimCommand}, {"fault", faultCommand},
};

int run(const Arguments& all) {
  if (all.empty()) {
    return usage("which command?");
  }
  if (all[0] == "--help" || all[0] == "-h") {
    std::fputs(kHelp, stdout);
    return 0;
  }
  const Arguments arguments(all.begin() + 1, all.end());
  if (all[0] == "load") {
    return loadCommand(arguments);
  }
  if (all[0] == "unload") {
    return unloadCommand(arguments);
  }
  for (const auto& [name, command] : kCommands) {
    if (name == all[0]) {
      Driver* driver = Driver::get();
      if (driver == nullptr) {
        return fail("the driver is not loaded; 'zorvikctl load' loads it");
      }
      const Lock lock(driver->state());
      return command(*driver, arguments);
    }
  }
  return usage("there is no command " + quoted(all[0]));
}

}  // namespace
}  // namespace tarnik::zorvik

int main(int argc, char** argv) {
  return tarnik::zorvik::run(tarnik::zorvik::Arguments(argv + 1, argv + argc));
}

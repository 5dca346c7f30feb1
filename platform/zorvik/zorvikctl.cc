// zorvikctl loads the driver stand-in, creates groups, shows the state and injects faults.
#include <net/if.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/reclaim.h"
#include "platform/zorvik/ring.h"
#include "platform/zorvik/setup.h"

namespace tarnik::zorvik {
namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

int fail(const std::string& message) {
  std::fprintf(stderr, "zorvikctl: %s\n", message.c_str());
  return kFailed;
}

// The exit status for a result of the driver. Prints `what` and the advice for this error, or the
// system's text.
using Advice = std::pair<int, const char*>;
int statusOf(int result, const std::string& what, const std::vector<Advice>& advice) {
  if (result >= 0) {
    return 0;
  }
  for (const auto& [error, text] : advice) {
    if (error == -result) {
      return fail(what + ": " + text);
    }
  }
  return fail(what + ": " + std::strerror(-result));
}

constexpr Advice kInUse = {EBUSY, "it is in use; first end the processes that have it open"};

// Calls `action` with the driver and its lock.
int withDriver(const std::function<int(Driver&)>& action) {
  Driver* const driver = Driver::get();
  if (driver == nullptr) {
    return fail("the driver is not loaded; 'zorvikctl load' loads it");
  }
  const Lock lock(driver->state());
  return action(*driver);
}

// ---- load, create-ifg

// Parses one SIZExCOUNT. Returns an error text for CLI11, empty if it is valid.
std::string parseClass(const std::string& text, ClassSize& parsed) {
  const std::size_t x = text.find('x');
  const bool valid = x != std::string::npos &&
                     CLI::detail::lexical_cast(text.substr(0, x), parsed.bufSize) &&
                     CLI::detail::lexical_cast(text.substr(x + 1), parsed.count);
  return valid ? "" : "'" + text + "' is not SIZExCOUNT";
}

int loadCommand(const std::vector<std::string>& frames) {
  std::vector<ClassSize> classes(std::begin(kDefaultClasses), std::end(kDefaultClasses));
  if (!frames.empty()) {
    classes.resize(frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
      (void)parseClass(frames[i], classes[i]);
    }
  }
  return statusOf(load(classes), "cannot load the driver",
                  {{EEXIST, "it is loaded already; 'zorvikctl unload' unloads it"},
                   {EINVAL,
                    "--frames takes one to four rising sizes, multiples of 64 up to 65536, "
                    "with less than 4 GiB and at most 1000000 buffers in all"},
                   {ENOENT, "there is no directory " ZORVIK_DEV_DIR}});
}

int createIfg(Driver& driver, const std::string& name, std::uint32_t frames) {
  State& state = driver.state();
  int result = createGroup(driver, name);
  if (result == 0) {
    result = createFrameData(driver, *findGroup(state, name), frames == 0 ? state.buffers : frames);
    if (result != 0) {
      (void)removeGroup(driver, name);
    }
  }
  constexpr char kNames[] =
      "a name has 1 to 16 characters, no '/' and no dot at the start, and is not ctl, net_data "
      "or " ZORVIK_IFG_NIL_NAME;
  return statusOf(result, "cannot create the group '" + name + "'",
                  {{EEXIST, "it exists already; 'zorvikctl remove-ifg' removes it"},
                   {EINVAL, kNames},
                   {ENAMETOOLONG, kNames},
                   {ENOSPC, "there are 8 groups already, or " ZORVIK_DEV_DIR " is full"}});
}

// ---- status

void printGroup(Driver& driver, const Group& group) {
  std::printf("group %s  frames %u, %u free\n", group.name, group.frames(), group.freeCount);
  const zorvik_ifg_config& config = group.settings().config;
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    char name[IF_NAMESIZE] = "(gone)";
    (void)::if_indextoname(config.ifs[i].kern_if, name);
    std::printf("  interface %u %s  index %u\n", i, name, config.ifs[i].kern_if);
  }
  for (const Queue& queue : group.queues) {
    if (queue.life != Life::kLive) {
      continue;
    }
    const auto memory = driver.queueMemory(group, queue);
    std::printf("  queue %s  type %u  entries %u  queued %u  %s\n", queue.name, queue.type,
                queue.slots, memory == nullptr ? 0 : Ring(memory->base(), queue.slots).used(),
                isIdle(nodePath(group, queue.name)) ? "closed" : "open");
  }
}

int printStatus(Driver& driver) {
  State& state = driver.state();
  for (Group& group : state.groups) {
    if (group.life == Life::kLive) {
      reclaimFrames(driver, group, Reclaim::kOfDead);
    }
  }
  for (std::uint32_t i = 0; i < state.classes; ++i) {
    const FrameClass& each = state.frameClasses[i];
    std::printf("buffers of %u bytes: %u, %u free\n", each.bufSize, each.count, each.freeCount);
  }
  for (const Group& group : state.groups) {
    if (group.life == Life::kLive) {
      printGroup(driver, group);
    }
  }
  return 0;
}

// ---- fault

struct QueueName {
  std::string group;
  std::string queue;
  std::uint64_t entry = 0;
};

int queueFault(Driver& driver, const QueueName& name, QueueFault fault) {
  Group* group = findGroup(driver.state(), name.group);
  const Queue* queue = group == nullptr ? nullptr : findQueue(*group, name.queue);
  if (queue == nullptr) {
    return fail("there is no queue '" + name.queue + "' in a group '" + name.group +
                "'; 'zorvikctl status' lists them");
  }
  return statusOf(injectFault(driver, *group, *queue, fault, name.entry), "cannot inject the fault",
                  {{ENOSPC, "the queue is full"}, {ENODATA, "the queue is empty"}});
}

// ---- The command line

class CommandLine {
 public:
  CommandLine() {
    app_.require_subcommand(1);
    app_.footer(
        "Numbers may be hexadecimal (0x...). Exit status: 0 done, 1 failed, 2 wrong usage.");
    addLoad();
    addGroups();
    addFaults();
  }

  int run(int argc, const char* const* argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app_.exit(error) == 0 ? 0 : kUsage;
    }
    return action_();
  }

 private:
  // A command that calls `action` with the driver.
  CLI::App& add(CLI::App& parent, const char* name, const char* help,
                std::function<int(Driver&)> action) {
    CLI::App* command = parent.add_subcommand(name, help);
    command->callback(
        [this, action = std::move(action)] { action_ = [action] { return withDriver(action); }; });
    return *command;
  }

  void addLoad() {
    CLI::App* loading = app_.add_subcommand("load", "load the driver");
    loading
        ->add_option(
            "--frames", frames_,
            "the buffers of the frame pool: up to four rising sizes, multiples of 64 up to "
            "65536 (default 2048x8192,16384x512,65536x256)")
        ->delimiter(',')
        ->type_name("SIZExCOUNT,...")
        ->check([](const std::string& text) {
          ClassSize ignored;
          return parseClass(text, ignored);
        });
    loading->callback([this] { action_ = [this] { return loadCommand(frames_); }; });
    app_.add_subcommand("unload", "remove every group and unload the driver")->callback([this] {
      action_ = [] {
        return statusOf(unload(), "cannot unload the driver",
                        {{ENODEV, "it is not loaded"}, kInUse});
      };
    });
  }

  void addGroups() {
    CLI::App& create =
        add(app_, "create-ifg", "create an interface group and its frame data",
            [this](Driver& driver) { return createIfg(driver, group_, frameCount_); });
    create.add_option("NAME", group_, "name of the group")->required();
    create.add_option("--frames", frameCount_, "number of frames (default: one for each buffer)")
        ->check(CLI::Range(1u, kMaxFrames));
    add(app_, "remove-ifg", "remove an interface group and its queues",
        [this](Driver& driver) {
          return statusOf(
              removeGroup(driver, group_), "cannot remove the group '" + group_ + "'",
              {{ENOENT, "there is no such group; 'zorvikctl status' lists them"}, kInUse});
        })
        .add_option("NAME", group_, "name of the group")
        ->required();
    add(app_, "status", "show the pool, the groups, their interfaces and queues", printStatus);
  }

  void addFaults() {
    CLI::App& faults = *app_.add_subcommand("fault", "inject a fault into the driver or a queue");
    faults.require_subcommand(1);
    const auto addNumber = [&](const char* name, const char* help, std::uint32_t Faults::*fault) {
      add(faults, name, help,
          [this, fault](Driver& driver) {
            driver.state().faults.*fault = number_;
            return 0;
          })
          .add_option("N", number_)
          ->required();
    };
    addNumber("slow-wake", "each wake request takes N milliseconds", &Faults::slowWakeMs);
    addNumber("drop-wakes", "the next N wake requests do nothing", &Faults::dropWakes);
    addNumber("eintr", "the N-th wait request from now fails with EINTR", &Faults::eintrIn);
    addNumber("strict-waits", "1: only wake requests end a wait; 0: sleepers also check the ring",
              &Faults::strictWaits);
    add(faults, "clear", "end slow-wake, drop-wakes, eintr and strict-waits", [](Driver& driver) {
      driver.state().faults = Faults{};
      return 0;
    });
    const auto addQueueFault = [&](const char* name, const char* help, QueueFault fault) {
      CLI::App& command = add(faults, name, help, [this, fault](Driver& driver) {
        return queueFault(driver, queue_, fault);
      });
      command.add_option("GROUP", queue_.group)->required();
      command.add_option("QUEUE", queue_.queue)->required();
      return &command;
    };
    addQueueFault("put", "put the number ENTRY on the queue, whatever it means", QueueFault::kEntry)
        ->add_option("ENTRY", queue_.entry)
        ->required();
    addQueueFault("dead-writer", "leave a slot that a producer claimed and never filled",
                  QueueFault::kDeadWriter);
    addQueueFault("dead-reader", "leave a slot that a consumer claimed and never emptied",
                  QueueFault::kDeadReader);
  }

  CLI::App app_{"Controls the stand-in for the zorvik driver.", "zorvikctl"};
  std::function<int()> action_;
  std::vector<std::string> frames_;
  std::string group_;
  std::uint32_t frameCount_ = 0;
  std::uint32_t number_ = 0;
  QueueName queue_;
};

}  // namespace
}  // namespace tarnik::zorvik

int main(int argc, char** argv) {
  return tarnik::zorvik::CommandLine().run(argc, argv);
}

#include "platform/brund/group_owner.h"

#include <net/if.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <utility>

#include "frameq/tarnik_if.h"
#include "frameq/tarnik_q.h"

namespace tarnik::brund {
namespace {

namespace fs = std::filesystem;

constexpr char kGroup[] = "brund";

struct CloseGroup {
  void operator()(zorlib_ifg* group) const noexcept { zorlib_ifg_close(group); }
};
using GroupHandle = std::unique_ptr<zorlib_ifg, CloseGroup>;

Error cannot(const std::string& what, int error) {
  const char* hint = "";
  if (error == ENOENT || error == ENOTTY) {
    hint = " (is the driver loaded, and libzorvik.so preloaded?)";
  } else if (error == EBUSY) {
    hint = " (another group has one of its interfaces: name others with --ports)";
  }
  return Error{"cannot " + what + " the interface group " + kGroup + ": " + std::strerror(error) +
               hint};
}

// The library checks the result and logs its faults.
zorvik_ifg_config describe(const std::vector<std::string>& ports) {
  zorvik_ifg_config config{};
  config.num_ifs = static_cast<std::uint32_t>(ports.size());
  config.link_config = ZORVIK_LINK_CONFIG_KEEP;
  for (std::uint32_t i = 0; i < std::min(config.num_ifs, ZORVIK_IF_MAX); ++i) {
    config.ifs[i].kern_if = if_nametoindex(ports[i].c_str());  // 0, which no interface has
    config.ifs[i].mate = i ^ 1u;
    config.ifs[i].mode = ZORVIK_IF_INLINE;
  }
  return config;
}

// Why the library refuses a description, for the user; empty if it does not.
std::string whyRefused(const zorvik_ifg_config& config, const std::vector<std::string>& ports) {
  if (config.num_ifs > ZORVIK_IF_MAX || config.num_ifs % 2 != 0) {
    return "an interface group takes pairs of interfaces, 2 to " + std::to_string(ZORVIK_IF_MAX) +
           " in all, and not " + std::to_string(config.num_ifs);
  }
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    if (config.ifs[i].kern_if == 0) {
      return "there is no network interface '" + ports[i] + "' ('ip link' lists them)";
    }
    for (std::uint32_t other = 0; other < i; ++other) {
      if (config.ifs[other].kern_if == config.ifs[i].kern_if) {
        return "an interface group takes each interface once: '" + ports[i] +
               (ports[i] == ports[other] ? "'" : "' is '" + ports[other] + "'");
      }
    }
  }
  return {};
}

template <class Use>
void forEachIn(const fs::path& directory, Use use) {
  std::error_code error;  // a process may end now
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    use(entry->path());
  }
}

// The processes that have a device node of the group open, as far as this process may see them.
std::string users() {
  const std::string nodes = std::string(ZORVIK_DEV_DIR "/") + kGroup + "/";
  std::string result;
  forEachIn("/proc", [&](const fs::path& process) {
    bool uses = false;
    forEachIn(process / "fd", [&](const fs::path& file) {
      std::error_code error;
      uses = uses || fs::read_symlink(file, error).native().starts_with(nodes);
    });
    const std::string id = process.filename();
    if (uses && id != "self" && id != "thread-self") {
      std::string name;
      std::ifstream comm(process / "comm");
      std::getline(comm, name);
      result += (result.empty() ? "" : ", ") + name + " (process " + id + ")";
    }
  });
  return result.empty() ? "another process" : result;
}

// Creates the group, or opens an existing one and gives it these interfaces.
Result<GroupHandle> openGroup(const std::vector<std::string>& ports) {
  const zorvik_ifg_config config = describe(ports);
  zorlib_ifg* group = nullptr;
  if (zorlib_ifg_create(kGroup, &config, &group) == 0) {
    return GroupHandle(group);
  }
  const int error = errno;
  if (const std::string reason = whyRefused(config, ports); !reason.empty()) {
    return Error{reason};
  }
  if (error != EEXIST) {
    return cannot("make", error);
  }
  if (zorlib_ifg_open(kGroup, &group) != 0) {
    return cannot("open", errno);
  }
  GroupHandle opened(group);
  if (zorlib_ifg_configure(group, &config) != 0) {
    return cannot("configure", errno);
  }
  return opened;
}

}  // namespace

std::vector<std::string> choosePorts(const std::string& first) {
  constexpr std::size_t kPair = 2;
  std::vector<std::string> ports;
  const auto choose = [&](const std::string& port) {
    const auto isPort = [index = if_nametoindex(port.c_str())](const std::string& other) {
      return if_nametoindex(other.c_str()) == index;  // an interface may have several names
    };
    if (ports.size() < kPair && std::none_of(ports.begin(), ports.end(), isPort)) {
      ports.push_back(port);
    }
  };
  if (!first.empty()) {
    choose(first);
  }
  std::array<zorlib_if, kPair> others;  // without the loopback
  const int count = zorlib_if_enum(others.data(), kPair);
  for (int i = 0; i < count; ++i) {
    choose(others[static_cast<std::size_t>(i)].name);
  }
  if (if_nametoindex("lo") != 0) {
    choose("lo");
  }
  return ports;
}

Result<> GroupOwner::take(const std::vector<std::string>& ports, std::size_t queueSize) {
  auto opened = openGroup(ports);
  if (!opened) {
    return Error{opened.error()};
  }
  group_ = opened->release();
  if (TarnikIfQInit2(group_, queueSize) != kQOk) {
    return cannot("make the queue of", errno);
  }
  return Done{};
}

Result<std::string> GroupOwner::remove() {
  if (group_ == nullptr) {
    return std::string();
  }
  int error = TarnikIfQFini2() == kQOk ? 0 : errno;
  TarnikIfgClose();  // the group cannot be removed while a process has it open
  group_ = nullptr;
  if (error == 0 || error == ENOENT) {
    error = zorlib_ifg_remove(kGroup) == 0 ? 0 : errno;
  }
  if (error == EBUSY) {
    return users();
  }
  if (error != 0 && error != ENOENT) {
    return cannot("remove", error);
  }
  return std::string();
}

}  // namespace tarnik::brund

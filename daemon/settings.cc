#include "daemon/settings.h"

#include <orlo_sdk.h>

#include <cerrno>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "base/log.h"
#include "policy/tuning_file.h"

namespace tarnik {
namespace {

using Field = std::int64_t& (*)(TarnikSettings&);

// A key `tarnik.FAMILY.NAME` whose value is an integer within [minimum, maximum].
struct IntegerKey {
  std::string_view family;
  const char* name;
  std::int64_t minimum;
  std::int64_t maximum;
  Field field;
};

constexpr IntegerKey kIntegerKeys[] = {
    {"diskspace", "percent", 0, 20,
     [](TarnikSettings& s) -> std::int64_t& { return s.diskspace.percent; }},
    {"diskspace", "bytes", 0, std::numeric_limits<std::int64_t>::max(),
     [](TarnikSettings& s) -> std::int64_t& { return s.diskspace.bytes; }},
    {"file", "maxsize", 1024, 10485760,
     [](TarnikSettings& s) -> std::int64_t& { return s.file.maxsize; }},
    {"file", "timeout", 1, 3000, [](TarnikSettings& s) -> std::int64_t& { return s.file.timeout; }},
    {"file", "maxno", 10, 20000, [](TarnikSettings& s) -> std::int64_t& { return s.file.maxno; }},
    {"event", "threshold", 0, 100000,
     [](TarnikSettings& s) -> std::int64_t& { return s.event.threshold; }},
    {"event", "interval", 1, 604800,
     [](TarnikSettings& s) -> std::int64_t& { return s.event.interval; }},
    {"brund", "timeout", 1, 48000,
     [](TarnikSettings& s) -> std::int64_t& { return s.brund.timeout; }},
    // This key sets the idle time-out of captures, and configurations in the field rely on it: the
    // later of this key and tarnik.file.timeout wins, and the expiry timer keeps its 300 seconds.
    {"brund", "interval", 1, 3600,
     [](TarnikSettings& s) -> std::int64_t& { return s.file.timeout; }},
    {"brund", "qsize", 50, 100000,
     [](TarnikSettings& s) -> std::int64_t& { return s.brund.qsize; }},
    {"brund", "qtimeout", 1000000, 600000000,
     [](TarnikSettings& s) -> std::int64_t& { return s.brund.qtimeout; }},
};

int applyEnabled(TarnikSettings& settings, const char* value) {
  if (OrloParseBool(value, &settings.enabled)) {
    return 0;
  }
  TARNIK_ERROR("Error: %s: Invalid value: %s=%s", "loadTarnikCfg", "enabled", value);
  TARNIK_DEBUG(2, "Debug: %s: Invalid value for %s: %s", "loadTarnikCfg", "enabled", value);
  return 1;
}

int applyDebugLevel(TarnikSettings& settings, const char* value) {
  if (parseUnsigned(value, settings.debuglevel)) {
    return 0;
  }
  TARNIK_DEBUG(2, "Debug: %s: Invalid value for %s: %s", "loadTarnikCfg", "debuglevel", value);
  return 1;
}

int applyInteger(TarnikSettings& settings, const IntegerKey& key, const char* value) {
  std::int64_t& field = key.field(settings);
  if (&field == &settings.diskspace.bytes) {
    TARNIK_DEBUG(0, "Debug: %s: tarnik.diskspace.bytes is readonly", "loadTarnikCfg");
  }
  if (!OrloParseInt(value, key.minimum, key.maximum, &field)) {
    TARNIK_ERROR("Error: %s: Invalid value: %s=%s", "loadTarnikCfg", key.name, value);
    return 1;
  }
  return 0;
}

std::vector<std::string_view> splitAtDots(std::string_view key) {
  std::vector<std::string_view> components;
  for (;;) {
    const std::size_t dot = key.find('.');
    components.push_back(key.substr(0, dot));
    if (dot == std::string_view::npos) {
      return components;
    }
    key.remove_prefix(dot + 1);
  }
}

std::string text(std::int64_t value) {
  return std::to_string(static_cast<std::uint64_t>(value));
}

}  // namespace

TarnikSettings& getSettings() {
  static TarnikSettings settings;
  return settings;
}

bool parseUnsigned(const char* text, std::uint32_t& result) {
  std::istringstream stream(text);
  std::uint32_t value = 0;
  if (!(stream >> value)) {
    return false;
  }
  result = value;
  return true;
}

int loadTarnikCfg(TarnikSettings& settings, std::span<const std::string_view> components,
                  const char* value) {
  if (components.size() < 2) {
    return 0;
  }
  const std::string_view family = components[1];
  if (family == "enabled") {
    return applyEnabled(settings, value);
  }
  if (family == "debuglevel") {
    return applyDebugLevel(settings, value);
  }
  if (components.size() < 3) {
    return 0;
  }
  for (const IntegerKey& key : kIntegerKeys) {
    if (family == key.family && components[2] == key.name) {
      return applyInteger(settings, key, value);
    }
  }
  return 0;
}

int load(TarnikSettings& settings, const char* path) {
  int result = 0;
  const auto visit = [&](const char* key, const char* value) {
    const std::vector<std::string_view> components = splitAtDots(key);
    if (components.front() == "tarnik") {
      result = loadTarnikCfg(settings, components, value);
    }
    if (result != 0) {
      TARNIK_DEBUG(0, "Debug: %s: Failed to load base cfg", "load");
    }
    return result == 0;
  };
  switch (readTuningFile(path, MalformedLines::kSkip, visit).status) {
    case TuningStatus::kEnd:
    case TuningStatus::kMalformed:
      return 0;
    case TuningStatus::kStopped:
      return result;
    case TuningStatus::kCannotOpen:
      TARNIK_ERROR("Error: %s: Failed to open: %s, errno=%d", "load", path, errno);
      TARNIK_DEBUG(0, "Debug: %s: Failed to open config: %s", "load", path);
      return 1;
    case TuningStatus::kNoParser:
      TARNIK_DEBUG(0, "Debug: %s: Failed to allocate orlo tuning", "load");
      return 1;
    case TuningStatus::kReadError:
      TARNIK_ERROR("Error: %s: Failed to read: %s, errno=%d", "load", path, errno);
      return 1;
  }
  return 1;
}

void dumpSettings(const TarnikSettings& settings) {
  TARNIK_INFO("tarnik.enabled=%s", text(settings.enabled).c_str());
  TARNIK_INFO("tarnik.debugLevel=%s", text(settings.debuglevel).c_str());
  TARNIK_INFO("tarnik.diskspace.bytes=%s", text(settings.diskspace.bytes).c_str());
  TARNIK_INFO("tarnik.diskspace.percent=%s", text(settings.diskspace.percent).c_str());
  TARNIK_INFO("tarnik.file.maxno=%s", text(settings.file.maxno).c_str());
  TARNIK_INFO("tarnik.file.maxsize=%s", text(settings.file.maxsize).c_str());
  TARNIK_INFO("tarnik.file.timeout=%s", text(settings.file.timeout).c_str());
  TARNIK_INFO("tarnik.brund.timeout=%s", text(settings.brund.timeout).c_str());
  // The lines for brund.interval and brund.qsize show another setting's value; programs that read
  // the log expect it.
  TARNIK_INFO("tarnik.brund.interval=%s", text(settings.brund.timeout).c_str());
  TARNIK_INFO("tarnik.brund.qtimeout=%s", text(settings.brund.qtimeout).c_str());
  TARNIK_INFO("tarnik.brund.qsize=%s", text(settings.brund.qtimeout).c_str());
}

}  // namespace tarnik

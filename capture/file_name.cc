#include "capture/file_name.h"

#include <cstdio>

#include "base/paths.h"

namespace tarnik {

TriggerClass classifyTrigger(std::int32_t triggerId) {
  if (triggerId == 0 || triggerId == 65535) {
    return TriggerClass::kUnknown;
  }
  return triggerId > 0 && triggerId < 65535 ? TriggerClass::kNapRule : TriggerClass::kIpsIssue;
}

std::string captureFileName(const std::tm& utc, std::int32_t triggerId,
                            const std::string& issueName, std::uint64_t sequence) {
  char path[kMaxCapturePath + 1];
  const int year = utc.tm_year + 1900;
  const int month = utc.tm_mon + 1;
  switch (classifyTrigger(triggerId)) {
    case TriggerClass::kIpsIssue:
      std::snprintf(path, sizeof path, "%s%04d%02d%02d-%02d%02d%02d.ips.%s.%lu.pcap", kCaptureDir,
                    year, month, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                    issueName.c_str(), sequence);
      break;
    case TriggerClass::kNapRule:
      std::snprintf(path, sizeof path, "%s%04d%02d%02d-%02d%02d%02d.naprule-%d.%lu.pcap",
                    kCaptureDir, year, month, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                    triggerId, sequence);
      break;
    case TriggerClass::kUnknown:
      std::snprintf(path, sizeof path, "%s%04d%02d%02d-%02d%02d%02d.unknown.%lu.pcap", kCaptureDir,
                    year, month, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, sequence);
      break;
  }
  return path;
}

}  // namespace tarnik

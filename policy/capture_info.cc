#include "policy/capture_info.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "base/log.h"
#include "base/owned.h"
#include "base/paths.h"
#include "policy/output_file.h"
#include "policy/template_copy.h"

namespace tarnik {
namespace {

bool isNapRule(const CaptureInfo& info) {
  return info.policyId <= kMaxNapPriority;
}

void writeTimes(std::FILE* stream, const CaptureInfo& info) {
  std::fprintf(stream, "time.start=%lu\n", static_cast<unsigned long>(info.startTime));
  std::fprintf(stream, "time.end=%lu\n", static_cast<unsigned long>(info.endTime));
  std::fprintf(stream, "time.format=%s\n", info.timeFormat.c_str());
}

void writePolicy(std::FILE* stream, const CaptureInfo& info) {
  const int id = static_cast<int>(info.policyId);  // signed: large ids are printed as negative
  const long flow = info.flowId;
  if (isNapRule(info)) {
    std::fprintf(stream, "nap.priority=%d\nnap.uuid=%s\nnap.flow.id=%ld\n", id,
                 info.policyName.c_str(), flow);
  } else {
    std::fprintf(stream, "ips.issue.id=%d\nips.issue.name=%s\nips.flow.id=%ld\n", id,
                 info.policyName.c_str(), flow);
  }
}

void writeFileSize(std::FILE* stream, const CaptureInfo& info) {
  struct stat status {};
  if (::stat(info.capturePath.c_str(), &status) != 0) {
    TARNIK_ERROR("Error: %s: Failed to determine file size [%s]: errno=%d\n", "fini",
                 info.capturePath.c_str(), errno);
    std::fputs("file.size=unknown", stream);
    return;
  }
  const long size = status.st_size;
  std::fprintf(stream, "file.size=%ld", size);
  TARNIK_DEBUG(3, "Debug: %s: File size=%ld\n", "fini", size);
}

}  // namespace

void CaptureInfo::set(const std::string& finalPath, std::uint32_t id, const std::string& name,
                      std::int64_t flow) {
  infoPath = finalPath.substr(0, finalPath.find(".pcap")) + ".info";
  capturePath = finalPath;
  policyId = id;
  policyName = name;
  flowId = flow;
}

bool fini(CaptureInfo& info) {
  info.endTime = std::time(nullptr);
  const std::string templatePath =
      isNapRule(info) ? kNapTemplatePrefix + info.policyName : kIpsTemplatePath;
  const int copied = copyTemplate(templatePath, info.infoPath);
  Stream stream = openForWriting(info.infoPath.c_str(), WriteMode::kAppend);
  if (!stream) {
    TARNIK_ERROR("Error: %s: Failed to open: %s, errno=%d", "fini", info.infoPath.c_str(), errno);
    return false;
  }
  if (copied < 0) {
    std::fputs("policy=unknown\n", stream.get());
  }
  writeTimes(stream.get(), info);
  writePolicy(stream.get(), info);
  writeFileSize(stream.get(), info);
  finishWriting("fini", info.infoPath.c_str(), stream);
  return true;
}

}  // namespace tarnik

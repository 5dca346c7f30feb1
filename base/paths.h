// The daemon's fixed paths. They are the sensor's: nothing makes them configurable, so that the
// binary that is tested is the binary that is installed.
#pragma once

namespace tarnik {

inline constexpr char kConfigPath[] = "/etc/tarnik.conf";
inline constexpr char kIpsPolicyPath[] = "/etc/ips.conf";
inline constexpr char kNapPolicyPath[] = "/etc/acl.conf";
inline constexpr char kCaptureDir[] = "/var/support/tarnik/";
inline constexpr char kIpsTemplatePath[] = "/var/support/tarnik/template.ips";
inline constexpr char kNapTemplatePrefix[] = "/var/support/tarnik/template.nap.";
inline constexpr char kDefaultModuleDir[] = "/usr/lib64/ruv-qan";

}  // namespace tarnik

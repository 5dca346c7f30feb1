// The daemon's fixed paths, which are the sensor's. They are not configurable, so that the tested
// binary is the installed binary.
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

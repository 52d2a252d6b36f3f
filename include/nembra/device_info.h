// The description of the device sent with uploads: operating system, SDK version, model,
// system version and device name. On Linux: os is the distribution's name from os-release
// ("Debian GNU/Linux"; the kernel's "Linux" when there is none), systemVersion its VERSION_ID
// (else the kernel release), deviceModel the machine architecture ("x86_64") and deviceName
// the host name.
//
// Threading: a plain value; any thread.
#pragma once

#include <string>

#include "nembra/json.h"

namespace nembra {

class DeviceInfo {
 public:
  // init: this device's values.
  DeviceInfo();
  static DeviceInfo initWithJson(const Json& json);

  // Reads "os", "nembraSdkVer", "deviceModel", "systemVersion", "deviceName"; a missing one
  // becomes "".
  void setInfo(const Json& json);
  // Back to this device's values.
  void clear();
  Json toDictionary() const;
  // "DeviceInfo{" and one "name=value," per line, each indented by 28 spaces.
  std::string toString() const;

  std::string os;
  std::string nembraSdkVer;
  std::string deviceModel;
  std::string systemVersion;
  std::string deviceName;
};

}  // namespace nembra

#include "nembra/device_info.h"

#include <iterator>

#include "api/model_field_lists.h"
#include "api/sdk_version.h"
#include "platform/system/device_facts.h"

namespace nembra {

DeviceInfo::DeviceInfo() { clear(); }

DeviceInfo DeviceInfo::initWithJson(const Json& json) {
  DeviceInfo info;
  info.setInfo(json);
  return info;
}

void DeviceInfo::clear() {
  const DeviceDescription& device = DeviceFacts::current();
  os = device.systemName;
  nembraSdkVer = kNembraSdkVersion;
  deviceModel = device.model;
  systemVersion = device.systemVersion;
  deviceName = device.name;
}

const ModelFields<DeviceInfo>& deviceInfoFields() {
  using M = DeviceInfo;
  static const ModelFields<M> list = ModelFields<M>()
                                         .string("os", &M::os)
                                         .string("nembraSdkVer", &M::nembraSdkVer)
                                         .string("deviceModel", &M::deviceModel)
                                         .string("systemVersion", &M::systemVersion)
                                         .string("deviceName", &M::deviceName);
  return list;
}

void DeviceInfo::setInfo(const Json& json) { deviceInfoFields().read(*this, json); }

Json DeviceInfo::toDictionary() const { return deviceInfoFields().write(*this); }

std::string DeviceInfo::toString() const {
  // Kept as is: readers of the logs expect this exact layout.
  const std::string indent = "\n" + std::string(28, ' ');
  std::string text = "DeviceInfo{";
  const Json fields = toDictionary();
  for (auto it = fields.begin(); it != fields.end(); ++it) {
    text += indent + it.key() + "=" + it->get<std::string>();
    text += std::next(it) != fields.end() ? "," : "}";
  }
  return text;
}

}  // namespace nembra

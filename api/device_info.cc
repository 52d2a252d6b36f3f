#include "nembra/device_info.h"

#include "api/sdk_version.h"
#include "api/utils.h"
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

void DeviceInfo::setInfo(const Json& json) {
  os = Utils::getStringFromJson(json, "os");
  nembraSdkVer = Utils::getStringFromJson(json, "nembraSdkVer");
  deviceModel = Utils::getStringFromJson(json, "deviceModel");
  systemVersion = Utils::getStringFromJson(json, "systemVersion");
  deviceName = Utils::getStringFromJson(json, "deviceName");
}

Json DeviceInfo::toDictionary() const {
  Json json = Json::object();
  json["os"] = os;
  json["nembraSdkVer"] = nembraSdkVer;
  json["deviceModel"] = deviceModel;
  json["systemVersion"] = systemVersion;
  json["deviceName"] = deviceName;
  return json;
}

std::string DeviceInfo::toString() const {
  // Kept as is: readers of the logs expect this exact layout.
  const std::string indent = "\n" + std::string(28, ' ');
  return "DeviceInfo{" + indent + "os=" + os + "," + indent + "nembraSdkVer=" + nembraSdkVer + "," +
         indent + "deviceModel=" + deviceModel + "," + indent + "systemVersion=" + systemVersion +
         "," + indent + "deviceName=" + deviceName + "}";
}

}  // namespace nembra

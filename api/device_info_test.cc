#include "nembra/device_info.h"

#include <gtest/gtest.h>

#include "api/sdk_version.h"
#include "platform/system/device_facts.h"

namespace nembra {
namespace {

TEST(DeviceInfoTest, DefaultsDescribeThisDeviceAndSdk) {
  DeviceInfo info;
  const DeviceDescription& device = DeviceFacts::current();
  EXPECT_EQ(info.os, device.systemName);
  EXPECT_FALSE(info.os.empty());
  EXPECT_EQ(info.nembraSdkVer, kNembraSdkVersion);
  EXPECT_EQ(info.deviceModel, device.model);
  EXPECT_EQ(info.systemVersion, device.systemVersion);
  EXPECT_EQ(info.deviceName, device.name);
}

TEST(DeviceInfoTest, JsonInAndOutWithTheFiveKeys) {
  DeviceInfo info = DeviceInfo::initWithJson(
      Json::parse(R"({"os": "PhoneOS", "nembraSdkVer": 2, "deviceModel": null, "extra": 1})"));
  EXPECT_EQ(info.os, "PhoneOS");
  EXPECT_EQ(info.nembraSdkVer, "2");
  EXPECT_EQ(info.deviceModel, "");
  EXPECT_EQ(info.deviceName, "");
  EXPECT_EQ(
      info.toDictionary().dump(),
      R"({"os":"PhoneOS","nembraSdkVer":"2","deviceModel":"","systemVersion":"","deviceName":""})");
  info.clear();
  EXPECT_EQ(info.nembraSdkVer, kNembraSdkVersion);
}

TEST(DeviceInfoTest, ToStringLayout) {
  DeviceInfo info = DeviceInfo::initWithJson(Json::parse(
      R"({"os": "Linux", "nembraSdkVer": "0.1.0", "deviceModel": "x86_64",
          "systemVersion": "12", "deviceName": "host"})"));
  const std::string pad(28, ' ');
  EXPECT_EQ(info.toString(), "DeviceInfo{\n" + pad + "os=Linux,\n" + pad + "nembraSdkVer=0.1.0,\n" +
                                 pad + "deviceModel=x86_64,\n" + pad + "systemVersion=12,\n" + pad +
                                 "deviceName=host}");
}

}  // namespace
}  // namespace nembra

// `nembra device-info`: what the SDK reports about this machine, and what it can reach and use.
#include <CLI/CLI.hpp>
#include <iostream>

#include "api/reachability_manager.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/device_info.h"
#include "platform/files/file_system.h"
#include "platform/system/capture_hardware.h"
#include "platform/system/device_facts.h"

namespace nembra {

namespace {

std::string gib(uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
  return text;
}

const char* statusName(int status) {
  switch (status) {
    case ReachableViaWiFi:
      return "reachable (local network)";
    case ReachableViaWWAN:
      return "reachable (cellular only)";
    default:
      return "not reachable";
  }
}

}  // namespace

// Gathers the facts shown by device-info and the demo.
Json collectDeviceReport(CliContext& context) {
  DeviceFacts facts;
  CaptureHardware hardware;
  Json report = Json::object();
  report["device_info"] = DeviceInfo().toDictionary();
  if (auto os = facts.osRelease()) report["os_release"] = os->prettyName;
  KernelInfo kernel = DeviceFacts::kernel();
  report["kernel"] = kernel.sysname + " " + kernel.release + " " + kernel.machine;
  if (auto memory = facts.memory()) {
    report["memory_total"] = gib(memory->totalBytes);
    report["memory_available"] = gib(memory->availableBytes);
  }
  const std::string root = FileSystem::shared().root();
  report["data_root"] = root;
  FileSystem::createDirectories(root);
  if (auto disk = DeviceFacts::diskSpace(root)) {
    report["disk_available"] = gib(disk->availableBytes);
    report["disk_total"] = gib(disk->totalBytes);
  }
  if (auto display = facts.mainDisplaySize()) {
    report["display"] = std::to_string(display->width) + "x" + std::to_string(display->height);
  } else {
    report["display"] = "none";
  }
  report["cameras"] = hardware.cameraDevices();
  report["microphones"] = hardware.microphoneDevices();
  report["camera_permission"] = hardware.cameraPermission();
  report["microphone_permission"] = hardware.microphonePermission();
  int status = ReachabilityManager::shared().reachability().currentReachabilityStatus();
  report["network"] = statusName(status);
  report["sdk_debug_logs"] = context.options.debug;
  return report;
}

void printDeviceReport(const Json& report, std::ostream& out) {
  for (const auto& [key, value] : report.items()) {
    if (key == "device_info") {
      for (const auto& [field, text] : value.items()) {
        out << "  " << field << ": " << text.get<std::string>() << "\n";
      }
      continue;
    }
    out << "  " << key << ": ";
    if (value.is_string()) {
      out << value.get<std::string>();
    } else if (value.is_array()) {
      if (value.empty()) out << "none";
      for (size_t i = 0; i < value.size(); ++i)
        out << (i ? ", " : "") << value[i].get<std::string>();
    } else {
      out << value.dump();
    }
    out << "\n";
  }
}

void registerDeviceInfoCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto* command = app.add_subcommand(
      "device-info",
      "Show what the SDK reports about this machine (sent with uploads), its capture devices\n"
      "and whether the network is reachable.");
  command->callback([&context, &exitCode] {
    Json report = collectDeviceReport(context);
    if (context.options.json) {
      std::cout << report.dump(2) << "\n";
    } else {
      printDeviceReport(report, std::cout);
    }
    exitCode = 0;
  });
}

}  // namespace nembra

// What the machine says about itself: the operating system (os-release), the kernel and host
// name (uname), memory (/proc/meminfo), disk space (statvfs) and the size of the first
// connected display (DRM in sysfs). The parsers are public so that they can be checked on
// given text.
//
// Threading: any thread. Nothing is cached except by current().
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nembra/error.h"

namespace nembra {

struct OsRelease {
  std::string name;        // NAME, e.g. "Debian GNU/Linux"
  std::string versionId;   // VERSION_ID, e.g. "12"
  std::string prettyName;  // PRETTY_NAME, e.g. "Debian GNU/Linux 12 (bookworm)"
};

struct KernelInfo {
  std::string sysname;   // "Linux"
  std::string release;   // "6.1.0-18-amd64"
  std::string machine;   // "x86_64"
  std::string nodename;  // the host name
};

struct MemoryInfo {
  uint64_t totalBytes = 0;
  uint64_t availableBytes = 0;
};

struct DiskSpace {
  uint64_t totalBytes = 0;
  uint64_t availableBytes = 0;  // to an unprivileged user
};

struct DisplaySize {
  int width = 0;
  int height = 0;
};

// The four strings that describe this device to the service.
struct DeviceDescription {
  std::string systemName;     // os-release NAME, else the kernel's name ("Linux")
  std::string systemVersion;  // os-release VERSION_ID, else the kernel release
  std::string model;          // the machine architecture, e.g. "x86_64"
  std::string name;           // the host name
};

class DeviceFacts {
 public:
  // Where the facts are read; tests point these at files of their own.
  struct Sources {
    std::vector<std::string> osReleaseFiles = {"/etc/os-release", "/usr/lib/os-release"};
    std::string meminfoFile = "/proc/meminfo";
    std::string drmDirectory = "/sys/class/drm";
  };

  DeviceFacts();
  explicit DeviceFacts(Sources sources);

  // The description of this machine, read once per process.
  static const DeviceDescription& current();

  // The first of the os-release files that can be read.
  std::optional<OsRelease> osRelease(OptionalError* error = nullptr) const;
  static KernelInfo kernel();
  std::optional<MemoryInfo> memory(OptionalError* error = nullptr) const;
  static std::optional<DiskSpace> diskSpace(const std::string& path,
                                            OptionalError* error = nullptr);
  // The preferred mode of the first connected display, by connector name; absent on a machine
  // without one (a server, a container).
  std::optional<DisplaySize> mainDisplaySize() const;
  DeviceDescription describe() const;

  // os-release: KEY=value lines, values optionally quoted, '#' comments.
  static OsRelease parseOsRelease(std::string_view text);
  // Absent when MemTotal is missing. Available memory is MemAvailable, or MemFree on kernels
  // that predate it.
  static std::optional<MemoryInfo> parseMeminfo(std::string_view text);
  // The first line of a DRM connector's "modes" file, "1920x1080".
  static std::optional<DisplaySize> parseDrmMode(std::string_view text);

 private:
  Sources sources_;
};

}  // namespace nembra

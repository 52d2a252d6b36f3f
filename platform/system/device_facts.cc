#include "platform/system/device_facts.h"

#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "platform/files/file_system.h"

namespace nembra {

namespace {

std::string_view trim(std::string_view text) {
  const char* blanks = " \t\r\n";
  size_t start = text.find_first_not_of(blanks);
  if (start == std::string_view::npos) return {};
  size_t end = text.find_last_not_of(blanks);
  return text.substr(start, end - start + 1);
}

// The shell-like quoting os-release allows: "…" with \" \\ \$ \` escapes, or '…' taken
// literally, or a bare word.
std::string unquote(std::string_view value) {
  if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') {
    return std::string(value.substr(1, value.size() - 2));
  }
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && i + 1 < value.size() &&
          std::string_view("\"\\$`").find(value[i + 1]) != std::string_view::npos) {
        ++i;
      }
      out += value[i];
    }
    return out;
  }
  return std::string(value);
}

template <typename Fn>
void forEachLine(std::string_view text, Fn fn) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    fn(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

std::optional<uint64_t> parseUnsigned(std::string_view text) {
  uint64_t value = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

DeviceFacts::DeviceFacts() = default;

DeviceFacts::DeviceFacts(Sources sources) : sources_(std::move(sources)) {}

const DeviceDescription& DeviceFacts::current() {
  static const DeviceDescription description = DeviceFacts().describe();
  return description;
}

OsRelease DeviceFacts::parseOsRelease(std::string_view text) {
  OsRelease release;
  forEachLine(text, [&](std::string_view line) {
    line = trim(line);
    if (line.empty() || line.front() == '#') return;
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return;
    std::string_view key = trim(line.substr(0, eq));
    std::string value = unquote(trim(line.substr(eq + 1)));
    if (key == "NAME") release.name = value;
    if (key == "VERSION_ID") release.versionId = value;
    if (key == "PRETTY_NAME") release.prettyName = value;
  });
  return release;
}

std::optional<MemoryInfo> DeviceFacts::parseMeminfo(std::string_view text) {
  std::optional<uint64_t> total, available, free;
  forEachLine(text, [&](std::string_view line) {
    size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    std::string_view key = line.substr(0, colon);
    std::string_view rest = trim(line.substr(colon + 1));
    uint64_t unit = 1;
    if (rest.size() > 3 && rest.substr(rest.size() - 3) == " kB") {
      unit = 1024;
      rest = trim(rest.substr(0, rest.size() - 3));
    }
    std::optional<uint64_t> value = parseUnsigned(rest);
    if (!value) return;
    if (key == "MemTotal") total = *value * unit;
    if (key == "MemAvailable") available = *value * unit;
    if (key == "MemFree") free = *value * unit;
  });
  if (!total) return std::nullopt;
  return MemoryInfo{*total, available ? *available : free.value_or(0)};
}

std::optional<DisplaySize> DeviceFacts::parseDrmMode(std::string_view text) {
  std::string_view line = trim(text.substr(0, text.find('\n')));
  size_t x = line.find('x');
  if (x == std::string_view::npos) return std::nullopt;
  // A mode may carry a suffix ("1920x1080i"); only the leading digits count.
  std::string_view heightText = line.substr(x + 1);
  heightText =
      heightText.substr(0, std::min(heightText.size(), heightText.find_first_not_of("0123456789")));
  std::optional<uint64_t> width = parseUnsigned(line.substr(0, x));
  std::optional<uint64_t> height = parseUnsigned(heightText);
  if (!width || !height || *width == 0 || *height == 0 || *width > 1u << 16 || *height > 1u << 16) {
    return std::nullopt;
  }
  return DisplaySize{static_cast<int>(*width), static_cast<int>(*height)};
}

std::optional<OsRelease> DeviceFacts::osRelease(OptionalError* error) const {
  OptionalError last;
  for (const std::string& path : sources_.osReleaseFiles) {
    if (std::optional<std::string> text = FileSystem::readFile(path, &last)) {
      return parseOsRelease(*text);
    }
  }
  if (error) *error = last ? last : Error::file("no os-release file to read");
  return std::nullopt;
}

KernelInfo DeviceFacts::kernel() {
  utsname names{};
  if (::uname(&names) != 0) return {};
  return {names.sysname, names.release, names.machine, names.nodename};
}

std::optional<MemoryInfo> DeviceFacts::memory(OptionalError* error) const {
  std::optional<std::string> text = FileSystem::readFile(sources_.meminfoFile, error);
  if (!text) return std::nullopt;
  std::optional<MemoryInfo> info = parseMeminfo(*text);
  if (!info && error) *error = Error::parse(sources_.meminfoFile + " has no MemTotal line");
  return info;
}

std::optional<DiskSpace> DeviceFacts::diskSpace(const std::string& path, OptionalError* error) {
  struct statvfs st {};
  if (::statvfs(path.c_str(), &st) != 0) {
    if (error) {
      *error = Error::file("cannot read the file system of " + path + ": " + std::strerror(errno),
                           errno);
    }
    return std::nullopt;
  }
  return DiskSpace{static_cast<uint64_t>(st.f_blocks) * st.f_frsize,
                   static_cast<uint64_t>(st.f_bavail) * st.f_frsize};
}

std::optional<DisplaySize> DeviceFacts::mainDisplaySize() const {
  namespace fs = std::filesystem;
  std::vector<fs::path> connectors;
  std::error_code ec;
  for (fs::directory_iterator it(sources_.drmDirectory, ec), end; !ec && it != end;
       it.increment(ec)) {
    // Connectors are named "card0-HDMI-A-1"; the card entries themselves have no dash.
    if (it->path().filename().string().find('-') != std::string::npos) {
      connectors.push_back(it->path());
    }
  }
  std::sort(connectors.begin(), connectors.end());
  for (const fs::path& connector : connectors) {
    std::optional<std::string> status = FileSystem::readFile((connector / "status").string());
    if (!status || trim(*status) != "connected") continue;
    std::optional<std::string> modes = FileSystem::readFile((connector / "modes").string());
    if (!modes) continue;
    if (std::optional<DisplaySize> size = parseDrmMode(*modes)) return size;
  }
  return std::nullopt;
}

DeviceDescription DeviceFacts::describe() const {
  KernelInfo k = kernel();
  std::optional<OsRelease> release = osRelease();
  DeviceDescription description;
  description.systemName = release && !release->name.empty() ? release->name : k.sysname;
  description.systemVersion =
      release && !release->versionId.empty() ? release->versionId : k.release;
  description.model = k.machine;
  description.name = k.nodename;
  return description;
}

}  // namespace nembra

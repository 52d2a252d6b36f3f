// Which folder may include which: the one-way dependency rule of the source tree, read from the
// #include lines of every source file.
//
//   cli -> recorder / playback / capture -> api -> platform
//   recorder may use streaming; streaming -> platform only
//   service may use api and platform, never the reverse
//   include/nembra -> include/nembra, the standard library and nlohmann only
//   platform/ffmpeg is the plug-in: nothing outside it includes it or an FFmpeg header
//   testing/ folders hold test helpers: production files never include them
//
// Threading: plain functions over files; any thread.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace nembra {

class IncludeRules {
 public:
  struct Violation {
    std::string file;  // relative to the root, "api/video.cc"
    int line = 0;
    std::string included;  // the text between the quotes or angle brackets
    std::string reason;
  };

  // The violations of one #include of |file| (a path relative to the root, with '/').
  // |angled| tells <...> from "...". Empty when the include is allowed.
  static std::vector<std::string> check(const std::string& file, const std::string& included,
                                        bool angled);

  // Every violation in the source files (.h, .hpp, .cc) under |root|; build trees and hidden
  // folders are skipped.
  static std::vector<Violation> scan(const std::filesystem::path& root);

  // The module a path belongs to: "platform/ffmpeg", "platform", "include/nembra", "api", ...;
  // empty outside the known folders.
  static std::string moduleOf(const std::string& path);
};

}  // namespace nembra

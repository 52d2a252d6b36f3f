#include "tests/include_rules.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>

namespace nembra {

namespace {

// Folders at the top of the tree that hold sources; anything else (build trees) is skipped.
const std::vector<std::string> kSourceFolders = {
    "platform", "streaming", "api",     "service", "recorder", "playback", "capture",
    "viewer",   "cli",       "include", "tests",   "bench",    "fuzz",     "examples"};

// Folders that use the whole tree: nothing depends on them.
const std::set<std::string> kConsumers = {"tests", "bench", "fuzz", "examples"};

// What each module may include besides itself.
const std::map<std::string, std::set<std::string>>& allowed() {
  static const std::map<std::string, std::set<std::string>> rules = {
      {"include/nembra", {}},
      {"platform", {"include/nembra"}},
      {"platform/ffmpeg", {"platform", "include/nembra"}},
      {"streaming", {"platform", "include/nembra"}},
      {"api", {"platform", "include/nembra"}},
      {"service", {"api", "platform", "include/nembra"}},
      {"recorder", {"api", "streaming", "platform", "include/nembra"}},
      {"playback", {"api", "platform", "include/nembra"}},
      {"capture", {"api", "platform", "include/nembra"}},
      {"viewer", {"api", "platform", "include/nembra"}},
      {"cli",
       {"recorder", "playback", "capture", "viewer", "service", "api", "streaming", "platform",
        "include/nembra"}},
  };
  return rules;
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool isFfmpegHeader(const std::string& included) {
  for (const char* library : {"libavcodec/", "libavformat/", "libavutil/", "libavdevice/",
                              "libavfilter/", "libswscale/", "libswresample/"}) {
    if (startsWith(included, library)) return true;
  }
  return false;
}

// <string>, <cstdint>: no folder and no extension.
bool isStandardHeader(const std::string& included) {
  return included.find('/') == std::string::npos && included.find('.') == std::string::npos;
}

bool isTestFile(const std::string& file) {
  const std::string top = file.substr(0, file.find('/'));
  return kConsumers.count(top) > 0 || file.find("/testing/") != std::string::npos ||
         (file.size() > 8 && file.compare(file.size() - 8, 8, "_test.cc") == 0);
}

// The module of a quoted include: the public headers are reached as "nembra/...".
std::string moduleOfIncluded(const std::string& included) {
  if (startsWith(included, "nembra/")) return "include/nembra";
  return IncludeRules::moduleOf(included);
}

}  // namespace

std::string IncludeRules::moduleOf(const std::string& path) {
  if (startsWith(path, "include/nembra/")) return "include/nembra";
  if (startsWith(path, "platform/ffmpeg/")) return "platform/ffmpeg";
  const std::string top = path.substr(0, path.find('/'));
  if (top == path || top == "include") return "";
  if (std::find(kSourceFolders.begin(), kSourceFolders.end(), top) == kSourceFolders.end()) {
    return "";
  }
  return top;
}

std::vector<std::string> IncludeRules::check(const std::string& file, const std::string& included,
                                             bool angled) {
  std::vector<std::string> reasons;
  const std::string from = moduleOf(file);
  const bool consumer = kConsumers.count(from) > 0;

  if (angled) {
    if (isFfmpegHeader(included) && from != "platform/ffmpeg") {
      reasons.push_back("FFmpeg headers belong to the plug-in in platform/ffmpeg");
    }
    if (from == "include/nembra" && !isStandardHeader(included) &&
        !startsWith(included, "nlohmann/")) {
      reasons.push_back(
          "public headers include only include/nembra, the standard library and "
          "nlohmann");
    }
    return reasons;
  }

  const std::string to = moduleOfIncluded(included);
  if (to.empty()) {
    reasons.push_back("a quoted include names a path from the source root or \"nembra/\"");
    return reasons;
  }
  if (included.find("/testing/") != std::string::npos && !isTestFile(file)) {
    reasons.push_back("test helpers are for tests only");
  }
  if (kConsumers.count(to) > 0 && to != from) {
    reasons.push_back(to + " is not a library");
  }
  if (to == "platform/ffmpeg" && from != to && !isTestFile(file)) {
    reasons.push_back("the FFmpeg plug-in is loaded at run time, never included");
  }
  if (consumer || to == from) return reasons;
  auto rule = allowed().find(from);
  if (rule != allowed().end() && rule->second.count(to) == 0 && to != "platform/ffmpeg" &&
      kConsumers.count(to) == 0) {
    reasons.push_back(from + " may not depend on " + to);
  }
  return reasons;
}

std::vector<IncludeRules::Violation> IncludeRules::scan(const std::filesystem::path& root) {
  namespace fs = std::filesystem;
  static const std::regex kInclude(R"(^\s*#\s*include\s*([<"])([^>"]+)[>"])");
  std::vector<Violation> violations;
  for (const std::string& folder : kSourceFolders) {
    if (!fs::is_directory(root / folder)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
      const std::string extension = entry.path().extension().string();
      if (!entry.is_regular_file() ||
          (extension != ".h" && extension != ".hpp" && extension != ".cc")) {
        continue;
      }
      const std::string file = fs::relative(entry.path(), root).generic_string();
      std::ifstream in(entry.path());
      std::string text;
      int line = 0;
      while (std::getline(in, text)) {
        ++line;
        std::smatch match;
        if (!std::regex_search(text, match, kInclude)) continue;
        for (std::string& reason : check(file, match[2].str(), match[1].str() == "<")) {
          violations.push_back({file, line, match[2].str(), std::move(reason)});
        }
      }
    }
  }
  std::sort(violations.begin(), violations.end(), [](const Violation& a, const Violation& b) {
    return std::tie(a.file, a.line) < std::tie(b.file, b.line);
  });
  return violations;
}

}  // namespace nembra

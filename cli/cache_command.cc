// `nembra cache path|ls|trim [--type video|audio|image] [--player] [--root ROOT]
// [--max-size BYTES]`: where the SDK keeps downloaded media, what is there, and trimming it to
// the size limit by the cache manager's rule (the newest files that fit stay).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>

#include "api/utils.h"
#include "cli/cli_context.h"
#include "cli/progress_board.h"
#include "nembra/application.h"
#include "nembra/cache_config.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"

namespace nembra {

namespace {

namespace fs = std::filesystem;

struct CacheArguments {
  std::string type;
  bool player = false;
  std::string root;
  bool noRoot = false;
  int64_t maxSize = -1;
  std::string token;  // path: the cached file of this token rather than the directories
};

const char* extensionFor(int type) {
  switch (type) {
    case VIDEO:
      return "mp4";
    case AUDIO:
      return "aac";
    case IMAGE:
      return "jpg";
    default:
      return "";
  }
}

std::vector<int> typesOf(const CacheArguments& args) {
  if (args.type == "video") return {VIDEO};
  if (args.type == "audio") return {AUDIO};
  if (args.type == "image") return {IMAGE};
  return {VIDEO, AUDIO, IMAGE};
}

NembraCacheManager& managerFor(CliContext& context, const CacheArguments& args) {
  Nembra& nembra = context.nembra();
  CacheConfig& config = nembra.cacheConfig();
  if (args.noRoot) config.setCacheRoot(std::nullopt);
  if (!args.root.empty()) config.setCacheRoot(args.root);
  if (args.maxSize >= 0) config.setMaxCacheSize(args.maxSize);
  return args.player ? nembra.playerCacheManager() : nembra.cacheManager();
}

struct CachedFile {
  std::string path;
  uint64_t size;
  std::chrono::system_clock::time_point created;
};

// The type's files in its directory, newest first, as trimming orders them.
std::vector<CachedFile> filesOf(NembraCacheManager& cache, int type) {
  std::vector<CachedFile> files;
  const std::string suffix = std::string(".") + extensionFor(type);
  std::error_code ec;
  for (fs::directory_iterator it(cache.getCacheDirectoryWithType(type), ec), end; !ec && it != end;
       it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    std::string path = it->path().string();
    files.push_back({path, getFileSize(path), getFileCreationDateWithDefaultDate(path, {})});
  }
  std::stable_sort(files.begin(), files.end(),
                   [](const CachedFile& a, const CachedFile& b) { return a.created > b.created; });
  return files;
}

std::string sizeText(uint64_t bytes) {
  std::string rate = ProgressBoard::rateText(static_cast<double>(bytes));
  return rate.substr(0, rate.size() - 2);  // without "/s"
}

int runPath(CliContext& context, const CacheArguments& args) {
  NembraCacheManager& cache = managerFor(context, args);
  if (!args.token.empty()) {
    // The token's file, printed only when it is cached.
    int found = 0;
    for (int type : typesOf(args)) {
      std::string path = cache.getCacheFilePathWithType(type, args.token);
      if (path.empty() || !cache.fileExists(path)) continue;
      std::cout << path << "\n";
      ++found;
    }
    if (found == 0) std::cerr << "nembra cache path: " << args.token << " is not cached\n";
    return found > 0 ? 0 : 1;
  }
  Json out = Json::object();
  for (int type : typesOf(args)) {
    out[mediaTypeName(type)] = cache.getCacheDirectoryWithType(type);
  }
  if (context.options.json) {
    std::cout << out.dump(2) << "\n";
  } else {
    for (const auto& entry : out.items()) {
      std::cout << entry.key() << "\t" << entry.value().get<std::string>() << "\n";
    }
  }
  return 0;
}

int runList(CliContext& context, const CacheArguments& args) {
  NembraCacheManager& cache = managerFor(context, args);
  Json out = Json::array();
  uint64_t total = 0;
  for (int type : typesOf(args)) {
    for (const CachedFile& file : filesOf(cache, type)) {
      auto seconds =
          std::chrono::duration_cast<std::chrono::seconds>(file.created.time_since_epoch()).count();
      out.push_back({{"type", mediaTypeName(type)},
                     {"path", file.path},
                     {"size", file.size},
                     {"created", seconds}});
      total += file.size;
      if (!context.options.json) {
        std::cout << mediaTypeName(type) << "\t" << sizeText(file.size) << "\t" << file.path
                  << "\n";
      }
    }
  }
  if (context.options.json) {
    std::cout << out.dump(2) << "\n";
  } else {
    std::cout << out.size() << " file(s), " << sizeText(total) << " (limit "
              << sizeText(static_cast<uint64_t>(
                     std::max<int64_t>(0, context.nembra().cacheConfig().maxCacheSize())))
              << " per type)\n";
  }
  return 0;
}

int runTrim(CliContext& context, const CacheArguments& args) {
  NembraCacheManager& cache = managerFor(context, args);
  Json out = Json::object();
  // One directory may serve several types (a cache root); it is trimmed once per extension.
  for (int type : typesOf(args)) {
    auto before = filesOf(cache, type);
    cache.trimCacheWithType(type);
    auto after = filesOf(cache, type);
    std::set<std::string> kept;
    for (const auto& file : after) kept.insert(file.path);
    Json removed = Json::array();
    for (const auto& file : before) {
      if (!kept.count(file.path)) removed.push_back(file.path);
    }
    out[mediaTypeName(type)] = {{"kept", after.size()}, {"removed", removed}};
    if (!context.options.json) {
      std::cout << mediaTypeName(type) << ": kept " << after.size() << ", removed "
                << removed.size() << "\n";
      for (const auto& path : removed) std::cout << "  - " << path.get<std::string>() << "\n";
    }
  }
  if (context.options.json) std::cout << out.dump(2) << "\n";
  return 0;
}

}  // namespace

void registerCacheCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto args = std::make_shared<CacheArguments>();
  auto* cache = app.add_subcommand("cache", "The SDK's media caches on this machine");
  cache->require_subcommand(1);
  auto common = [args](CLI::App* command) {
    command->add_option("--type", args->type, "Only this type")
        ->check(CLI::IsMember({"video", "audio", "image"}));
    command->add_flag("--player", args->player, "The players' cache rather than the recordings'");
    command->add_option("--root", args->root,
                        "Cache root: under the documents directory, or as given when it ends "
                        "in \"/\"");
    command->add_flag("--per-type", args->noRoot,
                      "No cache root: a \"<type>-cache\" directory per type");
  };
  auto* path = cache->add_subcommand(
      "path", "Print each type's cache directory, or the cached file of TOKEN when it is cached");
  common(path);
  path->add_option("token", args->token, "A media token");
  path->callback([&context, &exitCode, args] { exitCode = runPath(context, *args); });
  auto* list = cache->add_subcommand("ls", "List the cached files, newest first");
  common(list);
  list->callback([&context, &exitCode, args] { exitCode = runList(context, *args); });
  auto* trim = cache->add_subcommand("trim", "Delete the oldest files beyond the size limit");
  common(trim);
  trim->add_option("--max-size", args->maxSize, "Limit in bytes per type (default 1 GiB)");
  trim->callback([&context, &exitCode, args] { exitCode = runTrim(context, *args); });
}

}  // namespace nembra

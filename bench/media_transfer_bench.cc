// Trimming a media cache directory of many files: the cache manager lists the directory, reads
// each file's creation date and size, sorts, and deletes what is beyond the limit.
//
// The upload benchmarks (a 1 GiB upload and 100 parallel small ones, each beside curl) need the
// `nembra` tool and a running service: bench/media_transfer_bench.sh.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>

#include "nembra/application.h"
#include "nembra/cache_config.h"
#include "nembra/nembra_cache_manager.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;

// |count| files of |size| bytes named 0.mp4 … in a fresh directory.
std::string makeDirectory(int64_t count, int64_t size) {
  std::string directory =
      fs::temp_directory_path().string() + "/nembra-trim-bench-" + std::to_string(count);
  fs::remove_all(directory);
  fs::create_directories(directory);
  for (int64_t i = 0; i < count; ++i) {
    std::string path = directory + "/" + std::to_string(i) + ".mp4";
    std::ofstream(path).close();
    fs::resize_file(path, static_cast<uintmax_t>(size));
  }
  return directory;
}

// Everything fits: the whole cost of listing, reading and sorting, nothing deleted.
void BM_TrimCacheKeepsEverything(benchmark::State& state) {
  const int64_t count = state.range(0);
  std::string directory = makeDirectory(count, 1024);
  MainQueue main;
  Nembra nembra("bench", main);
  nembra.cacheConfig().setMaxCacheSize(int64_t{1} << 40);
  NembraCacheManager cache(nembra, false);
  for (auto _ : state) cache.trimCache("mp4", directory);
  state.SetItemsProcessed(state.iterations() * count);
  fs::remove_all(directory);
}
BENCHMARK(BM_TrimCacheKeepsEverything)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Half the files go: listing and reading plus 50,000 deletions.
void BM_TrimCacheDeletesHalf(benchmark::State& state) {
  const int64_t count = state.range(0);
  MainQueue main;
  Nembra nembra("bench", main);
  nembra.cacheConfig().setMaxCacheSize(count / 2 * 1024);
  NembraCacheManager cache(nembra, false);
  for (auto _ : state) {
    state.PauseTiming();
    std::string directory = makeDirectory(count, 1024);
    state.ResumeTiming();
    cache.trimCache("mp4", directory);
    state.PauseTiming();
    fs::remove_all(directory);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_TrimCacheDeletesHalf)->Arg(100000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nembra

BENCHMARK_MAIN();

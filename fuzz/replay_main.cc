// Replays fuzz inputs without libFuzzer: every file named on the command line, or found in a
// directory named there, is passed once to LLVMFuzzerTestOneInput. Used by the regular test run
// so that the seed corpus and every crash ever found stay fixed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replayFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int failures = 0;
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(arg)) {
        if (entry.is_regular_file()) {
          failures += replayFile(entry.path());
          ++count;
        }
      }
    } else {
      failures += replayFile(arg);
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return failures == 0 && count > 0 ? 0 : 1;
}

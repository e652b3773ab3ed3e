// Goes through inputs that are kept, one after the other: the main of a fuzz target in builds
// without libFuzzer. Takes files and folders, and `--random COUNT` for as many inputs of random
// bytes, the same ones each time. A fault ends it with the input's path or number above.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "Harness.h"

namespace {

std::vector<std::filesystem::path> FilesOf(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

bool Run(const std::filesystem::path& path) {
  std::printf("%s\n", path.string().c_str());
  std::fflush(stdout);
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file) return false;
  // A copy of exactly the input's size: a read past its end is a fault that a sanitizer sees.
  const std::vector<uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
  return true;
}

// Scripts of up to 400 bytes.
void RunRandom(size_t count) {
  std::minstd_rand random;
  for (size_t i = 0; i < count; ++i) {
    std::vector<uint8_t> input(random() % 400);
    for (uint8_t& byte : input)
      byte = static_cast<uint8_t>(random() >> 8);
    std::printf("\rrandom %zu", i);
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--random") == 0 && i + 1 < argc) {
      RunRandom(std::strtoul(argv[++i], nullptr, 10));
      continue;
    }
    for (const auto& path : FilesOf(argv[i])) {
      if (!Run(path)) {
        std::printf("can't be read\n");
        return 1;
      }
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count == 0 ? 1 : 0;
}

// SPDX-License-Identifier: Apache-2.0
//
// In the place of libFuzzer's main: gives the target every file that is named, or that lies in a
// folder that is named. So corpora are regression tests with any compiler, and a file that crashed
// a fuzzer is looked at in a debugger.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      files.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
    if (!stream.is_open()) {
      std::fprintf(stderr, "%s cannot be read\n", file.c_str());
      return 1;
    }
    std::fprintf(stderr, "%s: %zu bytes\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::fprintf(stderr, "%zu files\n", files.size());
  return files.empty() ? 1 : 0;
}

// SPDX-License-Identifier: Apache-2.0
//
// A settings file that somebody else wrote: it is read, changed and read back, and the change must
// not lose any other setting.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/linux/nvram.h"
#include "platform/sys.h"

namespace {

// A file of ours in a folder of ours, removed at the end.
struct File {
  File() {
    const char* shared = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    folder = std::string(shared) + "/nvram-fuzz-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
      std::abort();
    }
    path = folder + "/nvram.conf";
  }
  ~File() {
    for (const char* name : {"/nvram.conf", "/.nvram.lock", "/.nvram.tmp"}) {
      unlink((folder + name).c_str());
    }
    rmdir(folder.c_str());
  }
  std::string folder;
  std::string path;
};

void expect(bool good, const char* what) {
  if (!good) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static File file;
  std::FILE* stream = std::fopen(file.path.c_str(), "wb");
  if (stream == nullptr) {
    return 0;
  }
  std::fwrite(data, 1, size, stream);
  std::fclose(stream);

  const char* path = file.path.c_str();
  char before[NVRAM_VALUE_SIZE];
  char after[NVRAM_VALUE_SIZE];
  const bool had = nvram_file_get(path, "a", before, sizeof before);
  expect(!had || nvram_value_valid(before), "a value was read that could not be written");
  const int result = nvram_file_set(path, "fuzz.set", "1");
  if (result == 0) {
    char value[NVRAM_VALUE_SIZE];
    expect(nvram_file_get(path, "fuzz.set", value, sizeof value) && std::strcmp(value, "1") == 0,
           "what was written is not there");
    expect(nvram_file_get(path, "a", after, sizeof after) == had &&
               (!had || std::strcmp(before, after) == 0),
           "writing one setting changed another");
  }
  return 0;
}

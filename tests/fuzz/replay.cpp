// Runs a fuzzer's corpus: every file of a folder, once.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include "fuzzer.h"

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  std::set<fs::path> files;  // in the same order everywhere
  for (const auto &entry : fs::directory_iterator(argv[1])) files.insert(entry.path());
  if (files.empty()) {
    std::fprintf(stderr, "%s: there is no corpus\n", argv[1]);
    return 1;
  }
  for (const fs::path &path : files) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s\n", path.filename().c_str());  // the last one is the one that failed
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
  }
  return 0;
}

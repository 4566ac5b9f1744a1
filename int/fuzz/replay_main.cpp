// Runs a fuzz target over the files of its corpus, as an ordinary test: every input the fuzzer
// once found is kept in the corpus and checked again by every build.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);

namespace {

std::vector<std::filesystem::path> inputs_of(char const* argument) {
  std::vector<std::filesystem::path> files;
  std::filesystem::path const root(argument);
  if (std::filesystem::is_directory(root)) {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root)) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
  } else {
    files.push_back(root);
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  for (int k = 1; k < argc; ++k) {
    for (auto const& file : inputs_of(argv[k])) {
      std::ifstream in(file, std::ios::binary);
      std::vector<char> bytes(std::filesystem::file_size(file));
      if (!in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      LLVMFuzzerTestOneInput(reinterpret_cast<uint8_t const*>(bytes.data()), bytes.size());
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  return replayed == 0 ? 1 : 0;  // an empty corpus is a lost corpus
}

// Loads a second copy of tqcore, as a process with mismatched libraries would.
#include <tqcore/error_exception.h>

#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s COPY_OF_LIBTQCORE\n", argv[0]);
    return 2;
  }
  // Touch the first copy, so it is loaded for certain.
  std::printf("first copy: %s\n", tqcore::error::tqcore.value().data());
  std::fflush(stdout);
  void* second = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (second == nullptr) {
    std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
    return 3;
  }
  std::printf("second copy loaded, going on\n");
  return 0;
}

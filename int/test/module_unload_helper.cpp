// Loads a copy of tqcore into a process that has none, unloads it, and says what the module
// registry held at each step: a plugin that links the library must be able to go away again.
#include <tqmoduleregistry/module_registry.h>

#include <dlfcn.h>

#include <cstdio>

namespace {

char const* registered() {
  tqmoduleregistry::ModuleInfo info;
  return tqmoduleregistry::query_module_info("tqcore", &info) ? "registered" : "absent";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s COPY_OF_LIBTQCORE\n", argv[0]);
    return 2;
  }
  std::printf("before: %s\n", registered());
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
    return 3;
  }
  std::printf("loaded: %s\n", registered());
  dlclose(library);
  bool const gone = dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) == nullptr;
  std::printf("unloaded: %s, %s\n", gone ? "gone" : "still mapped", registered());
  return 0;
}

#include <tqmoduleregistry/module_registry.h>

#include <cstdio>
#include <cstring>

#include "module_info.h"

namespace tqcore {
namespace impl {
namespace {

char const kModuleName[] = "tqcore";

char const* module_xml() { return std::strchr(g_tqcoreModuleInfo, '<'); }

// A second copy of the library in one process means mismatched builds: say so loudly, with
// both records, and stop unless the environment asks to go on.
void report_duplicate() {
  std::fprintf(stderr, "ModuleRegistry: Module %s is already loaded into this process!\n",
               kModuleName);
  std::fprintf(stderr,
               "This is typically caused by a version or debug/release mismatch between "
               "libraries referenced by this process.\n");
  tqmoduleregistry::ModuleInfo registered;
  tqmoduleregistry::query_module_info(kModuleName, &registered);
  std::fprintf(stderr, "Data of module that was already registered:\n%s\n", registered.xml());
  std::fprintf(stderr, "Data of new module that conflicts:\n%s\n", module_xml());
  std::fprintf(stderr, "\nAborting...\n");
  std::fflush(stderr);
  if (!environment_variable_exists("TQTQ_MODULEREGISTRY_DONT_FAIL_ON_DUPLICATES")) {
    debug_break();
  }
}

// Registers at load and removes the record at unload; a copy that found another one
// registered leaves that one's record alone.
class ModuleRegistration {
 public:
  ModuleRegistration()
      : m_registered(tqmoduleregistry::add_module_info(kModuleName, module_xml())) {
    if (!m_registered) report_duplicate();
  }
  ~ModuleRegistration() {
    if (m_registered) tqmoduleregistry::remove_module_info(kModuleName);
  }
  ModuleRegistration(ModuleRegistration const&) = delete;
  ModuleRegistration& operator=(ModuleRegistration const&) = delete;

 private:
  bool m_registered;
};

ModuleRegistration const g_registration;

}  // namespace
}  // namespace impl
}  // namespace tqcore

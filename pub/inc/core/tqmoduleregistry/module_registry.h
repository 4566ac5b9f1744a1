/// @file
/// The process-wide registry in which every library of the family records itself at load, so
/// that two copies of one library in one process are caught. It is a library of its own, loaded
/// once however many copies of its users are.
///
/// @code
/// tqmoduleregistry::ModuleInfo info;
/// if (tqmoduleregistry::query_module_info("tqcore", &info)) std::cout << info.xml() << '\n';
/// @endcode
#pragma once

#include <tqmoduleregistry/tqmoduleregistry_export.h>

#include <string>

namespace tqmoduleregistry {

/// Holds the result of a query: the XML text a module registered.
class TQMODULEREGISTRY_EXPORT ModuleInfo {
 public:
  ModuleInfo();
  ~ModuleInfo();

  char const* xml() const noexcept { return m_xml.c_str(); }

 private:
  friend bool query_module_info(char const* name, ModuleInfo* info);
  std::string m_xml;
};

/// Registers `name` with its record; false if a module of that name is registered already.
TQMODULEREGISTRY_EXPORT bool add_module_info(char const* name, char const* xml);
/// Copies the record that stands under `name` into `info`; false if there is none.
TQMODULEREGISTRY_EXPORT bool query_module_info(char const* name, ModuleInfo* info);
/// Removes the record of `name`, if any.
TQMODULEREGISTRY_EXPORT void remove_module_info(char const* name);

}  // namespace tqmoduleregistry

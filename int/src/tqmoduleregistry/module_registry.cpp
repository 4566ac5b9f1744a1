#include <tqmoduleregistry/module_registry.h>

#include <map>
#include <mutex>
#include <string>

namespace tqmoduleregistry {
namespace {

struct Registry {
  std::mutex lock;
  std::map<std::string, std::string> records;
};

// Never destroyed: modules remove themselves from their own exit processing, which may come
// after this library's static destructors.
Registry& registry() {
  static Registry* const instance = new Registry();
  return *instance;
}

}  // namespace

ModuleInfo::ModuleInfo() = default;
ModuleInfo::~ModuleInfo() = default;

bool add_module_info(char const* name, char const* xml) {
  if (name == nullptr) return false;
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  return r.records.emplace(name, xml != nullptr ? xml : "").second;
}

bool query_module_info(char const* name, ModuleInfo* info) {
  if (name == nullptr) return false;
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  auto found = r.records.find(name);
  if (found == r.records.end()) return false;
  if (info != nullptr) info->m_xml = found->second;
  return true;
}

void remove_module_info(char const* name) {
  if (name == nullptr) return;
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  r.records.erase(name);
}

}  // namespace tqmoduleregistry

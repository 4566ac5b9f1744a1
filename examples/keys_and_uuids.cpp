// Interned keys whose equality is one pointer compare, and UUIDs made and read back.
#include <tqcore/object_key.h>
#include <tqcore/uuid.h>

#include <iostream>
#include <map>

int main() {
  // Keys of one text are one key, wherever and whenever they are made.
  tqcore::StringKey const a("service.requests");
  tqcore::StringKey const b("service.requests");
  std::map<tqcore::StringKey, int> counters;
  ++counters[a];
  ++counters[b];
  std::cout << "one counter: " << counters.size() << ", count " << counters[a] << '\n';

  tqcore::Uuid const id = tqcore::Uuid::create_sequential();
  std::string const text = id.as_string(tqcore::Uuid::Braced);
  tqcore::Uuid const back = tqcore::Uuid::from_string(text.c_str());
  std::cout << text << (back == id ? " reads back\n" : " does not read back\n");
  return counters.size() == 1 && back == id ? 0 : 1;
}

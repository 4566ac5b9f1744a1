// Raises, catches and matches an error through the installed headers and library.
#include <tqcore/tqcore.h>

#include <iostream>

int main() {
  try {
    tqcore::throw_error(tqcore::error::tqcore_uuid_parse, "Consumer check.",
                        tqcore::SourceLocation("main()", "consumer", __LINE__));
  } catch (tqcore::ErrorException const& e) {
    if (e.matches(tqcore::error::tqcore_uuid) && e.what()[0] == '\n') {
      std::cout << "consumer ok: tqcore " << TQCORE_VERSION_STRING << '\n';
      return 0;
    }
  }
  std::cerr << "consumer: the error did not arrive as expected\n";
  return 1;
}

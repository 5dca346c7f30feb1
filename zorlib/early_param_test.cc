// An application whose static initialiser sets a parameter. Exit status 0 when the library kept it.
#include <cstring>

#include "zorlib/internal.h"

namespace {

const int kSetEarly = zorlib_set_param("zorvik.early.q.q_size", "777");

}  // namespace

int main() {
  zorlib_ifg ifg;
  std::strcpy(ifg.name.data(), "early");
  return kSetEarly == 0 && zorlib_ifg_lookup_qsize(&ifg, "q") == 777 ? 0 : 1;
}

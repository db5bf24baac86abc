// The daemon's entry: off-target overrides, --help and --version, then start-up and the cycle.
#include <cstdio>
#include <cstring>

#include "coordinator/zunta_cycle.h"
#include "core/zunta_runtime.h"

int main(int argc, char** argv) {
  char error[256];
  if (zunta_runtime_init(error, sizeof error) != 0) {
    std::fprintf(stderr, "zunta-coord: %s\n", error);
    return 2;
  }
  return zunta_main(argc, argv);
}

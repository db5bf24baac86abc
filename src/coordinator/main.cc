// The daemon's entry: the off-target overrides, then start-up and the cycle.
#include <cstdio>

#include "coordinator/cycle.h"
#include "core/runtime.h"

int main(int argc, char** argv) {
  // Line buffering: every logged line reaches a pipe or a supervisor when it is written. The bytes
  // are those of the log; the logger itself never flushes.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  char error[256];
  if (zunta_runtime_init(error, sizeof error) != 0) {
    std::fprintf(stderr, "zunta-coord: %s\n", error);
    return 2;
  }
  // Only the first argument counts, and the cycle ignores any it does not know: there are no
  // --help or --version answers before start-up (the README documents the command line).
  return zunta_main(argc, argv);
}

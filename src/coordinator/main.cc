// The daemon's entry: --version and --help, the off-target overrides, then start-up and the cycle.
#include <cstdio>
#include <cstring>

#include "coordinator/cycle.h"
#include "coordinator/snapshot.h"
#include "core/runtime.h"

namespace {

// The paths shown are those in effect: the product's own unless an override is set, so a test or
// demo run shows the files it really uses.
void print_usage() {
  std::printf(
      "usage: zunta-coord [OPTION]\n"
      "Only the first argument counts; any other first argument runs the plain cycle.\n"
      "  (none)          run the control cycle for ever\n"
      "  -e              run the control cycle with the topology check\n"
      "  -0              put the default pattern on every mesh pair, then exit\n"
      "  -1              train every mesh pair once, apply the result, then exit\n"
      "  -2 LEFT RIGHT   put patterns LEFT and RIGHT on every mesh pair, then exit\n"
      "  -3 [SECONDS]    measure the bitrate of every mesh pair for ever (default 6 s)\n"
      "  --version       print the version and exit\n"
      "  -h, --help      print this text and exit\n"
      "Configuration file: %s\n"
      "Status file: %s\n"
      "Status document (JSON): %s\n",
      zunta_conf_path(), zunta_snapshot_path(), zunta_status_json_path());
}

}  // namespace

int main(int argc, char** argv) {
  // Line buffering: every logged line reaches a pipe or a supervisor when it is written. The bytes
  // are those of the log; the logger itself never flushes.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  // Answered before anything else: no banner, no configuration, no socket.
  if (argc >= 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("zunta-coord %s %s\n", ZUNTA_VERSION, ZUNTA_BUILD);
    return 0;
  }
  char error[256];
  if (zunta_runtime_init(error, sizeof error) != 0) {
    std::fprintf(stderr, "zunta-coord: %s\n", error);
    return 2;
  }
  if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    print_usage();
    return 0;
  }
  // Only the first argument counts, and the cycle ignores any it does not know.
  return zunta_main(argc, argv);
}

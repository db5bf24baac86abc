// The daemon's entry: --help and --version, the off-target overrides, then start-up and the cycle.
#include <cstdio>
#include <cstring>

#include "coordinator/zunta_cycle.h"
#include "coordinator/zunta_snapshot.h"
#include "core/zunta_runtime.h"

namespace {

constexpr char USAGE[] =
    "usage: zunta-coord [option]\n"
    "Smart antenna coordinator for the root node of a mesh. Only the first argument counts:\n"
    "  (none)          run the control cycle: discover, train new mesh pairs, retrain on schedule\n"
    "  -e              run the control cycle and retrain when mesh pairs appear or disappear\n"
    "  -0              set the default pattern (3) on both ends of every mesh pair, then exit\n"
    "  -1              train every mesh pair once, apply the result, then exit\n"
    "  -2 LEFT RIGHT   set pattern LEFT on left ends and RIGHT on right ends, then exit\n"
    "  -3 [SECONDS]    measure the bitrate of every mesh pair for ever (default 6 s)\n"
    "  --help          this text\n"
    "  --version       the version\n"
    "Configuration: /etc/zunta.conf, key=value lines: root=true (required), broadcast_address,\n"
    "broadcast_port, training_start_hour (0..23), training_frequency_minutes (0 or 5..1380).\n"
    "Status: /tmp/zunta-sa.log. Log: standard output.\n"
    "Environment overrides (for running off the target):\n"
    "  ZUNTA_CONF, ZUNTA_SNAPSHOT, ZUNTA_DUMP_FILE, ZUNTA_TRAINING_STATUS_FILE   file paths\n"
    "  ZUNTA_AGENT_PORT   TCP port of the node agents (default 12458)\n"
    "  ZUNTA_TIME_SCALE   factor on every wait, e.g. 0.05 (default 1)\n";

}  // namespace

int main(int argc, char** argv) {
  // Every logged line reaches a pipe or a supervisor when it is written.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc > 1 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(USAGE, stdout);
    return 0;
  }
  if (argc > 1 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("%s %s\n", ZUNTA_VERSION, ZUNTA_BUILD);
    return 0;
  }
  char error[256];
  if (zunta_runtime_init(error, sizeof error) != 0) {
    std::fprintf(stderr, "zunta-coord: %s\n", error);
    return 2;
  }
  return zunta_main(argc, argv);
}

// The status snapshot: version, local time, schedule, last training and the patterns in force at
// both ends of every trained mesh pair, rewritten whole on every call.
#include "coordinator/snapshot.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "coordinator/status_json.h"
#include "core/atomic_file.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"

namespace {

constexpr unsigned FRONTHAUL_PATTERN = 3;

// A node that is not in the registry at the moment has no receive pattern we could report, so it
// is shown like a node for which none was chosen.
unsigned rx_pattern_of(struct coordinator* coordinator, trained_mesh_pair* tp, int side) {
  const ath* a = zunta_trained_pair_ath(coordinator, tp, side);
  int32_t pattern = a != nullptr ? a->rx_pattern : RX_PATTERN_NONE;
  return static_cast<unsigned>(pattern);
}

void write_node(std::FILE* file, const char* mac, const char* ip, int32_t tx_pattern, unsigned rx_pattern) {
  std::fprintf(file, "        \"mac\": \"%s\",\n", mac);
  std::fprintf(file, "        \"ip\": \"%s\",\n", ip);
  std::fprintf(file, "        \"tx_pattern\": \"0x%x\",\n", static_cast<unsigned>(tx_pattern));
  std::fprintf(file, "        \"rx_pattern\": \"0x%x\",\n", rx_pattern);
  std::fprintf(file, "        \"fronthaul_pattern\": \"0x%x\",\n", FRONTHAUL_PATTERN);
}

void write_pair(std::FILE* file, struct coordinator* coordinator, trained_mesh_pair* tp) {
  std::fprintf(file, "    {\n");
  std::fprintf(file, "    \"key\": \"%s\",\n", tp->meshkey);
  std::fprintf(file, "    \"trained\": %d,\n", tp->trained);
  std::fprintf(file, "    \"left_node\": {\n");
  write_node(file, tp->left_mac, tp->left_ip, tp->left_tx_pattern,
             rx_pattern_of(coordinator, tp, PAIR_SIDE_LEFT));
  std::fprintf(file, "       },\n");
  std::fprintf(file, "    \"right_node\": {\n");
  write_node(file, tp->right_mac, tp->right_ip, tp->right_tx_pattern,
             rx_pattern_of(coordinator, tp, PAIR_SIDE_RIGHT));
  std::fprintf(file, "       }\n");
  std::fprintf(file, "    },\n");
}

// Why the finished document could not take the file's place. In a sticky directory such as /tmp
// only the owner of a file may replace it: a file left there by another user (a manual run as root,
// say) blocks every later write, so the line names that owner.
void log_not_replaced(const char* path, int error) {
  struct stat st = {};
  if ((error == EPERM || error == EACCES) && lstat(path, &st) == 0 && st.st_uid != geteuid()) {
    ZLOG_AS("zunta_snapshot_info", COMP_CORE, LVL_E,
            "ERROR writing file %s: %s (it belongs to uid %u, and only its owner may replace it)\n", path,
            std::strerror(error), static_cast<unsigned>(st.st_uid));
    return;
  }
  ZLOG_AS("zunta_snapshot_info", COMP_CORE, LVL_E, "ERROR writing file %s: %s\n", path, std::strerror(error));
}

// Readers find the previous document until the new one is complete.
int write_snapshot(struct coordinator* coordinator, const options* opts) {
  replacement_file file;
  if (file.open(zunta_snapshot_path()) != 0) {
    int error = errno;
    ZLOG_AS("zunta_snapshot_info", COMP_CORE, LVL_E, "ERROR opening file %s!\n", zunta_snapshot_path());
    ZLOG_AS("zunta_snapshot_info", COMP_CORE, LVL_E,
            "No new file for %s can be created in its directory: %s\n", zunta_snapshot_path(),
            std::strerror(error));
    return -1;
  }
  char now[TIME_TEXT_SIZE];
  print_systime(now);
  std::FILE* out = file.stream();
  std::fprintf(out, "{\n");
  std::fprintf(out, "  \"version\": \"%s %s\",\n", ZUNTA_VERSION, ZUNTA_BUILD);
  std::fprintf(out, "  \"systime\": \"%s\",\n", now);
  std::fprintf(out, "  \"training hour\": \"%d\",\n", opts->training_start_hour);
  std::fprintf(out, "  \"training frequency (minutes) \": \"%d\",\n", opts->training_frequency_minutes);
  std::fprintf(out, "  \"last training\": \"%s\",\n", coordinator->last_training);
  std::fprintf(out, "  \"mesh_pairs\": [\n");
  sa_list_for_each_entry(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    write_pair(out, coordinator, tp);
  }
  std::fprintf(out, "  ]\n");
  std::fprintf(out, "}\n");
  if (file.commit() != 0) {
    log_not_replaced(zunta_snapshot_path(), errno);
    return -1;
  }
  return 0;
}

}  // namespace

int zunta_snapshot_info(struct coordinator* coordinator, const options* opts) {
  ZLOG(COMP_CORE, LVL_I, "snapshot\n");
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return -1;
  }
  if (opts == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for options\n");
    return -1;
  }
  const int result = write_snapshot(coordinator, opts);
  // The JSON document follows every status file, written or not; its failures are its own.
  zunta_status_json_write(coordinator, opts);
  return result;
}

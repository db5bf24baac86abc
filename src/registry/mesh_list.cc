// Command 1: the node's mesh neighbours, one "mac,radioidx,pattern" line each, become neighbour
// records of its ath.
#include "registry/ath.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "commander/transport.h"
#include "core/log.h"
#include "core/text.h"

namespace {

constexpr int32_t RADIO_IGNORED = -1;  // the agent marks a line to be ignored with radio index -1

// Scans one answer line as "%17[^,],%d,%d" would into `scanned`. False when the line names no
// neighbour: fewer than three fields (a MAC longer than 17 characters ends the scan), a first field
// that is not a MAC text, a number that does not fit its field, or radio index -1.
bool scan_neighbour_line(const char* line, neighbour& scanned) {
  scanned = neighbour{};
  const char* p = zunta_scan_text_field(line, scanned.mac);
  if (p == nullptr || !zunta_mac_shaped(scanned.mac) ||
      !zunta_scan_int32(p, 10, INT32_MIN, INT32_MAX, &scanned.radioidx, &p) || *p++ != ',')
    return false;
  return zunta_scan_int32(p, 10, INT32_MIN, INT32_MAX, &scanned.pattern, nullptr) &&
         scanned.radioidx != RADIO_IGNORED;
}

}  // namespace

int zunta_get_mesh_list(char (&buffer)[COMMAND_SIZE], ath* a) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  char answer[ANSWER_SIZE] = {};
  if (zunta_node_command(buffer, a, CMD_GET_MESH_LIST, ZERO_MAC, answer) != 0) return -1;
  return zunta_parse_mesh_list(a, answer);
}

int zunta_parse_mesh_list(ath* a, char* answer) {
  // Text after the last line feed is not a line.
  for (char* line = answer; char* end = std::strchr(line, '\n'); line = end + 1) {
    *end = '\0';
    ZLOG(COMP_CORE, LVL_D, "CMD 1: token: %s\n", line);
    neighbour scanned;
    if (!scan_neighbour_line(line, scanned)) continue;
    auto* n = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    if (n == nullptr) {
      ZLOG_AS("zunta_get_mesh_list", COMP_CORE, LVL_E, "Memory allocation error for neighbour\n");
      return -1;
    }
    *n = scanned;
    INIT_SA_LIST_HEAD(&n->list);
    sa_list_add(&n->list, &a->neighbours);
    a->neighbour_count++;
  }
  return 0;
}

// Command 1: the node's mesh neighbours, one "mac,radioidx,pattern" line each, become neighbour
// records of its ath.
#include "registry/ath.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commander/transport.h"
#include "core/log.h"
#include "core/text.h"

namespace {

constexpr int32_t RADIO_IGNORED = -1;  // the agent marks a line to be ignored with radio index -1

// Scans one answer line into `scanned`. False when the line names no neighbour: fewer than three
// fields (a MAC longer than 17 characters stops the scan after its 17th) or radio index -1.
bool scan_neighbour_line(const char* line, neighbour& scanned) {
  scanned = neighbour{};
  scanned.radioidx = RADIO_IGNORED;
  scanned.pattern = -1;
  int fields = std::sscanf(line, "%17[^,],%d,%d", scanned.mac, &scanned.radioidx, &scanned.pattern);
  return fields == 3 && scanned.radioidx != RADIO_IGNORED;
}

}  // namespace

int zunta_get_mesh_list(char (&buffer)[COMMAND_SIZE], ath* a) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  char answer[ANSWER_SIZE] = {};
  if (zunta_make_and_send_command(buffer, CMD_GET_MESH_LIST, -1, PLACEHOLDER_IP, ZERO_MAC, answer, a->ip) !=
      0) {
    return -1;
  }
  // Text after the last line feed is not a line.
  for (char* line = answer; char* end = std::strchr(line, '\n'); line = end + 1) {
    *end = '\0';
    ZLOG(COMP_CORE, LVL_D, "CMD 1: token: %s\n", line);
    neighbour scanned;
    if (!scan_neighbour_line(line, scanned)) continue;
    auto* n = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    if (n == nullptr) {
      ZLOG(COMP_CORE, LVL_E, "Memory allocation error for neighbour\n");
      return -1;
    }
    *n = scanned;
    INIT_SA_LIST_HEAD(&n->list);
    sa_list_add(&n->list, &a->neighbours);
    a->neighbour_count++;
  }
  return 0;
}

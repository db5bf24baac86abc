// The discovery exchange: the "IP?" request, the collection of the nodes' answers, and the
// parsing of the answers into ath records.
#include "coordinator/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/runtime.h"
#include "core/text.h"
#include "registry/ath.h"

namespace {

constexpr char DISCOVERY_REQUEST[] = "IP?";  // sent with its NUL: 4 bytes

static_assert(BROADCAST_BUFFER_SIZE > DISCOVERY_MAX_ANSWERS * (DISCOVERY_ANSWER_SIZE + 1),
              "every kept answer, its line feed and the final NUL fit");

// Answers of one request gathered into the caller's buffer, each followed by a line feed. Once
// DISCOVERY_MAX_ANSWERS are held, later answers are dropped (reported once), so the buffer is
// never overrun whatever the number of nodes.
struct answer_collection {
  char* text;
  std::size_t used;
  std::size_t kept;
  bool overflow_reported;
};

void keep_answer(answer_collection& c, const char* answer) {
  if (c.kept >= DISCOVERY_MAX_ANSWERS) {
    if (!c.overflow_reported) {
      ZLOG_AS("zunta_mesh_nodes_discovery", COMP_CORE, LVL_E,
              "Discovery answers beyond the first %d of this request are dropped\n",
              static_cast<int>(DISCOVERY_MAX_ANSWERS));
      c.overflow_reported = true;
    }
    return;
  }
  std::size_t len = strnlen(answer, DISCOVERY_ANSWER_SIZE);
  std::memcpy(c.text + c.used, answer, len);
  c.used += len;
  c.text[c.used++] = '\n';
  c.text[c.used] = '\0';
  c.kept++;
}

int send_request(struct coordinator* coordinator) {
  char address[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &coordinator->broadcast_addr.sin_addr, address, sizeof address);
  ZLOG(COMP_CORE, LVL_I, "Sending broadcast message to %s:%d\n", address,
       ntohs(coordinator->broadcast_addr.sin_port));
  ssize_t sent = sendto(coordinator->sockfd, DISCOVERY_REQUEST, sizeof DISCOVERY_REQUEST, 0,
                        reinterpret_cast<const sockaddr*>(&coordinator->broadcast_addr),
                        sizeof coordinator->broadcast_addr);
  if (sent < 0) {
    ZLOG(COMP_CORE, LVL_I, "Transmission error\n");
    return -1;
  }
  ZLOG(COMP_CORE, LVL_I, "Transmitted bytes: %d\n", static_cast<int>(sent));
  return 0;
}

// Receives answers until the socket's receive time-out passes without one.
void collect_answers(struct coordinator* coordinator, char* broadcast_buffer) {
  answer_collection c{broadcast_buffer, 0, 0, false};
  for (;;) {
    char answer[DISCOVERY_ANSWER_SIZE + 1] = {};  // at most 64 bytes and a NUL that stays
    socklen_t address_len = sizeof coordinator->sender_addr;
    ssize_t got = recvfrom(coordinator->sockfd, answer, DISCOVERY_ANSWER_SIZE, 0,
                           reinterpret_cast<sockaddr*>(&coordinator->sender_addr), &address_len);
    if (got < 0 && errno == EINTR) continue;
    if (answer[0] == '\0') {
      ZLOG(COMP_CORE, LVL_I, " No bytes received. Size of temporary broadcast buffer: %d\n",
           static_cast<int>(std::strlen(answer)));
      return;
    }
    keep_answer(c, answer);
    ZLOG(COMP_CORE, LVL_I, "Size of Temporary Broadcast Buffer: %d\n", static_cast<int>(std::strlen(answer)));
    ZLOG(COMP_CORE, LVL_I, "Content of Temporary Broadcast Buffer: `%s`\n", answer);
    if (got <= 0) return;
  }
}

// One answer line: "ip,mac,discovery_value,eth_index". A node already registered under the same
// ip and eth_index is not added again.
void register_answer_line(struct coordinator* coordinator, const char* line) {
  if (std::strchr(line, ',') == nullptr) return;
  ZLOG(COMP_CORE, LVL_D, "Token: %s\n", line);
  char ip[IP_TEXT_SIZE] = {};
  char mac[MAC_TEXT_SIZE] = {};
  int32_t discovery_value = -1;
  int32_t eth_index = -1;
  if (std::sscanf(line, "%15[^,],%17[^,],%d,%d", ip, mac, &discovery_value, &eth_index) != 4) return;
  if (zunta_ath_find(coordinator, ip, eth_index) != 0) return;
  zunta_ath_add(coordinator, command, ip, mac, discovery_value, eth_index);
}

}  // namespace

bool zunta_discovery_due(const struct coordinator* coordinator, uint32_t now_ms) {
  return coordinator->discovery_started == 0 ||
         timediff(now_ms, coordinator->last_broadcast_ms) >=
             static_cast<int32_t>(zunta_scaled_ms(DISCOVERY_PERIOD_MS));
}

int zunta_mesh_nodes_discovery(struct coordinator* coordinator, int32_t* new_broadcast,
                               char (&broadcast_buffer)[BROADCAST_BUFFER_SIZE]) {
  auto now = static_cast<uint32_t>(uptime_ms());
  std::memset(broadcast_buffer, 0, sizeof broadcast_buffer);
  if (coordinator == nullptr || new_broadcast == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return -1;
  }
  if (!zunta_discovery_due(coordinator, now)) return 0;
  if (send_request(coordinator) != 0) return -1;
  coordinator->last_broadcast_ms = now;
  coordinator->discovery_started = 1;
  *new_broadcast = 1;
  zunta_reset_coordinator_counters(coordinator);
  collect_answers(coordinator, broadcast_buffer);
  return 0;
}

void zunta_parse_broadcast_message(struct coordinator* coordinator, char* broadcast_buffer) {
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return;
  }
  if (broadcast_buffer == nullptr) return;
  // Text after the last line feed is not parsed; the collection ends every answer with one.
  for (char* line = broadcast_buffer; char* end = std::strchr(line, '\n'); line = end + 1) {
    *end = '\0';
    register_answer_line(coordinator, line);
  }
}

// The discovery exchange: the "IP?" request, the collection of the nodes' answers, and the
// parsing of the answers into ath records.
#include "coordinator/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "core/clock.h"
#include "core/heap.h"
#include "core/log.h"
#include "core/runtime.h"
#include "core/text.h"
#include "registry/ath.h"
#include "registry/unanswering.h"

namespace {

constexpr char DISCOVERY_REQUEST[] = "IP?";  // sent with its NUL: 4 bytes
// More datagrams than the socket's receive buffer can queue: emptying it before a request ends
// even while a host keeps sending.
constexpr int STALE_DATAGRAMS_MAX = 4096;
// Over-long answers reported one by one in a collection; a summary line counts the rest, so a
// host that keeps sending them cannot flood the log.
constexpr int OVERLONG_REPORTS_MAX = 8;

static_assert(BROADCAST_BUFFER_SIZE > DISCOVERY_MAX_ANSWERS * (DISCOVERY_ANSWER_SIZE + 1),
              "every kept answer, its line feed and the final NUL fit");

// Answers of one request gathered into the caller's buffer, each followed by a line feed, up to
// DISCOVERY_MAX_ANSWERS, so the buffer is never overrun whatever the number of nodes.
struct answer_collection {
  char* text;
  std::size_t used;
  std::size_t kept;
  bool check_sender;
  int overlong;                             // answers dropped for their length
  in_addr_t warned[DISCOVERY_MAX_ANSWERS];  // senders already warned about in this request
  std::size_t warned_count;
};

void append(answer_collection& c, const char* text, std::size_t len) {
  std::memcpy(c.text + c.used, text, len);
  c.used += len;
  c.text[c.used++] = '\n';
  c.text[c.used] = '\0';
}

// A line naming the address it came from. Any other line of the datagram, a malformed one
// included, is dropped, and its sender reported once per request.
bool names_its_sender(answer_collection& c, const char* line, std::size_t len, const sockaddr_in& from) {
  std::size_t ip_len = 0;
  while (ip_len < len && line[ip_len] != ',')
    ++ip_len;
  char ip[IP_TEXT_SIZE] = {};
  in_addr named{};
  if (ip_len < sizeof ip) std::memcpy(ip, line, ip_len);
  if (ip_len < sizeof ip && inet_pton(AF_INET, ip, &named) == 1 && named.s_addr == from.sin_addr.s_addr)
    return true;
  for (std::size_t i = 0; i < c.warned_count; ++i) {
    if (c.warned[i] == from.sin_addr.s_addr) return false;
  }
  if (c.warned_count < DISCOVERY_MAX_ANSWERS) c.warned[c.warned_count++] = from.sin_addr.s_addr;
  char sender[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
  ZLOG(COMP_CORE, LVL_W, "Discovery answer from %s names another address (%.*s), ignored\n", sender,
       static_cast<int>(ip_len), line);
  return false;
}

// Keeps the answer (at most 64 characters, ended by a NUL); with the sender check only its lines
// that name the sender.
void keep_answer(answer_collection& c, const char* answer, const sockaddr_in& from) {
  std::size_t len = strnlen(answer, DISCOVERY_ANSWER_SIZE);
  if (!c.check_sender) {
    append(c, answer, len);
    c.kept++;
    return;
  }
  bool any = false;
  for (std::size_t at = 0; at < len;) {
    const char* line = answer + at;
    const char* feed = static_cast<const char*>(std::memchr(line, '\n', len - at));
    std::size_t line_len = feed != nullptr ? static_cast<std::size_t>(feed - line) : len - at;
    at += line_len + 1;
    if (line_len == 0 || !names_its_sender(c, line, line_len, from)) continue;
    append(c, line, line_len);  // the kept lines and their feeds take no more room than the answer
    any = true;
  }
  if (any) c.kept++;
}

// Datagrams that came after the last collection ended are late or unsolicited: none of them may
// pass for an answer to the next request.
void drop_stale_datagrams(struct coordinator* coordinator) {
  int dropped = 0;
  for (int i = 0; i < STALE_DATAGRAMS_MAX; ++i) {
    char scrap[1];
    ssize_t got = recv(coordinator->sockfd, scrap, sizeof scrap, MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) break;
    ++dropped;
  }
  if (dropped > 0)
    ZLOG(COMP_CORE, LVL_I, "Dropped %d datagrams received since the last discovery\n", dropped);
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

// Receives answers until the socket's receive time-out passes without one, the answer limit is
// reached or the collection's time is up.
void receive_answers(struct coordinator* coordinator, answer_collection& c) {
  // On the monotonic millisecond clock: setting the time of day cannot stretch a collection.
  const uint32_t started = static_cast<uint32_t>(uptime_ms());
  const int32_t limit_ms = static_cast<int32_t>(zunta_scaled_ms(DISCOVERY_COLLECTION_MAX_MS));
  for (;;) {
    if (c.kept >= DISCOVERY_MAX_ANSWERS) {
      ZLOG(COMP_CORE, LVL_W, "Discovery stops at %d answers; later answers of this request are dropped\n",
           static_cast<int>(DISCOVERY_MAX_ANSWERS));
      return;
    }
    if (timediff(static_cast<uint32_t>(uptime_ms()), started) >= limit_ms) {
      ZLOG(COMP_CORE, LVL_W, "Discovery stops after %d ms with %d answers; later answers are dropped\n",
           static_cast<int>(zunta_scaled_ms(DISCOVERY_COLLECTION_MAX_MS)), static_cast<int>(c.kept));
      return;
    }
    char answer[DISCOVERY_ANSWER_SIZE + 1] = {};  // at most 64 bytes and a NUL that stays
    sockaddr_in from{};
    socklen_t address_len = sizeof from;
    // With MSG_TRUNC the result is the datagram's full length, so a cut answer is told apart.
    ssize_t got = recvfrom(coordinator->sockfd, answer, DISCOVERY_ANSWER_SIZE, MSG_TRUNC,
                           reinterpret_cast<sockaddr*>(&from), &address_len);
    if (got < 0 && errno == EINTR) continue;
    if (got >= 0) coordinator->sender_addr = from;
    if (got > static_cast<ssize_t>(DISCOVERY_ANSWER_SIZE)) {
      if (++c.overlong > OVERLONG_REPORTS_MAX) continue;
      char sender[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
      ZLOG_AS("zunta_mesh_nodes_discovery", COMP_CORE, LVL_E,
              "Discovery answer of %d bytes from %s is longer than %d bytes, dropped\n",
              static_cast<int>(got), sender, static_cast<int>(DISCOVERY_ANSWER_SIZE));
      continue;
    }
    if (answer[0] == '\0') {
      ZLOG(COMP_CORE, LVL_I, " No bytes received. Size of temporary broadcast buffer: %d\n",
           static_cast<int>(std::strlen(answer)));
      return;
    }
    keep_answer(c, answer, from);
    ZLOG(COMP_CORE, LVL_I, "Size of Temporary Broadcast Buffer: %d\n", static_cast<int>(std::strlen(answer)));
    ZLOG(COMP_CORE, LVL_I, "Content of Temporary Broadcast Buffer: `%s`\n", answer);
  }
}

void collect_answers(struct coordinator* coordinator, char* broadcast_buffer) {
  answer_collection c{broadcast_buffer, 0, 0, coordinator->discovery_check_sender != 0, 0, {}, 0};
  receive_answers(coordinator, c);
  if (c.overlong > OVERLONG_REPORTS_MAX) {
    ZLOG_AS("zunta_mesh_nodes_discovery", COMP_CORE, LVL_E,
            "%d more discovery answers longer than %d bytes dropped\n", c.overlong - OVERLONG_REPORTS_MAX,
            static_cast<int>(DISCOVERY_ANSWER_SIZE));
  }
}

// Which IP first announced each MAC in one discovery (MACs in lower case).
struct announcer {
  char mac[MAC_TEXT_SIZE];
  char ip[IP_TEXT_SIZE];
};
struct announcers {
  announcer* table;  // null when memory was short: every answer is then taken
  std::size_t count;
};

// True when the MAC of the answer was first announced from another IP in this discovery. Such an
// answer, a forged one or a node's second address, is ignored with one line naming both IPs, so
// an answer that arrives late never takes over the pairs of the node that answered first.
bool announced_elsewhere(announcers& seen, const discovery_answer& answer) {
  if (seen.table == nullptr) return false;
  char mac[MAC_TEXT_SIZE];
  zunta_copy_text(mac, answer.mac);
  for (char& c : mac)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (std::size_t i = 0; i < seen.count; ++i) {
    if (!zunta_text_equal(seen.table[i].mac, mac)) continue;
    if (zunta_text_equal(seen.table[i].ip, answer.ip)) return false;
    ZLOG(COMP_CORE, LVL_W, "MAC %s announced by %s and by %s: the answer of %s is ignored\n", mac,
         seen.table[i].ip, answer.ip, answer.ip);
    return true;
  }
  zunta_copy_text(seen.table[seen.count].mac, mac);
  zunta_copy_text(seen.table[seen.count].ip, answer.ip);
  ++seen.count;
  return false;
}

// One answer line: "ip,mac,discovery_value,eth_index". A node already registered under the same
// ip and eth_index is not added again, nor a first interface whose agent has already been given up
// on in this discovery (it said so once).
void register_answer_line(struct coordinator* coordinator, const char* line, announcers& seen) {
  if (std::strchr(line, ',') == nullptr) return;
  ZLOG(COMP_CORE, LVL_D, "Token: %s\n", line);
  discovery_answer answer{};
  if (!zunta_parse_discovery_answer(line, &answer)) return;
  if (announced_elsewhere(seen, answer)) return;
  if (zunta_ath_find(coordinator, answer.ip, answer.eth_index) != 0) return;
  if (answer.eth_index == 0 && zunta_agent_unanswering(answer.ip, AGENT_FAILED_REGISTRY)) return;
  zunta_ath_add(coordinator, command, answer.ip, answer.mac, answer.discovery_value, answer.eth_index);
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
  drop_stale_datagrams(coordinator);
  if (send_request(coordinator) != 0) return -1;
  coordinator->last_broadcast_ms = now;
  coordinator->discovery_started = 1;
  *new_broadcast = 1;
  zunta_reset_coordinator_counters(coordinator);
  collect_answers(coordinator, broadcast_buffer);
  return 0;
}

bool zunta_parse_discovery_answer(const char* line, discovery_answer* answer) {
  if (line == nullptr || answer == nullptr) return false;
  discovery_answer parsed{};
  const char* p = zunta_scan_text_field(line, parsed.ip);
  if (p != nullptr) p = zunta_scan_text_field(p, parsed.mac);
  in_addr address{};
  if (p == nullptr || inet_pton(AF_INET, parsed.ip, &address) != 1 || !zunta_mac_shaped(parsed.mac) ||
      !zunta_scan_int32(p, 10, INT32_MIN, INT32_MAX, &parsed.discovery_value, &p) || *p != ',' ||
      !zunta_scan_int32(p + 1, 10, INT32_MIN, INT32_MAX, &parsed.eth_index, nullptr)) {
    return false;
  }
  *answer = parsed;
  return true;
}

void zunta_parse_broadcast_message(struct coordinator* coordinator, char* broadcast_buffer) {
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return;
  }
  if (broadcast_buffer == nullptr) return;
  std::size_t lines = 0;
  for (const char* at = std::strchr(broadcast_buffer, '\n'); at != nullptr; at = std::strchr(at + 1, '\n'))
    ++lines;
  heap_array<announcer> table = heap_allocate<announcer>(lines + 1);
  announcers seen{table.get(), 0};
  // Text after the last line feed is not parsed; the collection ends every answer with one.
  for (char* line = broadcast_buffer; char* end = std::strchr(line, '\n'); line = end + 1) {
    *end = '\0';
    register_answer_line(coordinator, line, seen);
  }
}

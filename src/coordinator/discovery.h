// The discovery exchange: "IP?" broadcast at most once a period, answers collected until the
// socket's receive time-out, and the answers turned into ath records.
#ifndef ZUNTA_COORDINATOR_DISCOVERY_H_
#define ZUNTA_COORDINATOR_DISCOVERY_H_

#include <cstddef>
#include <cstdint>

struct coordinator;

constexpr uint32_t DISCOVERY_PERIOD_MS = 60000;  // sendto_timeout
constexpr std::size_t DISCOVERY_ANSWER_SIZE = 64;
// The collection holds this many full answers (each 64 bytes and a line feed); later answers of
// the same exchange are dropped with an error line. Room for meshes far beyond fifteen nodes.
constexpr std::size_t DISCOVERY_MAX_ANSWERS = 512;
constexpr std::size_t BROADCAST_BUFFER_SIZE = DISCOVERY_MAX_ANSWERS * (DISCOVERY_ANSWER_SIZE + 1) + 1;

// One discovery step. Clears broadcast_buffer; when a request is due, sends it, sets
// *new_broadcast to 1 and collects the answers, one per line. 0, or -1 when the send failed.
int zunta_mesh_nodes_discovery(struct coordinator* coordinator, int32_t* new_broadcast,
                               char (&broadcast_buffer)[BROADCAST_BUFFER_SIZE]);

// True when a request is due at `now_ms` (uptime milliseconds): none sent yet, or the period
// (scaled off target) has fully passed since the last one. A request exactly one period after the
// last goes out.
bool zunta_discovery_due(const struct coordinator* coordinator, uint32_t now_ms);

// Adds an ath for every well-formed "ip,mac,value,eth_index" line not yet registered.
// Each line feed of the buffer becomes a NUL.
void zunta_parse_broadcast_message(struct coordinator* coordinator, char* broadcast_buffer);

#endif  // ZUNTA_COORDINATOR_DISCOVERY_H_

// The discovery exchange: "IP?" broadcast at most once a period, answers collected until the
// socket's receive time-out or one of the collection's bounds, and the answers turned into ath records.
#ifndef ZUNTA_COORDINATOR_DISCOVERY_H_
#define ZUNTA_COORDINATOR_DISCOVERY_H_

#include <cstddef>
#include <cstdint>

#include "core/text.h"

struct coordinator;

constexpr uint32_t DISCOVERY_PERIOD_MS = 60000;  // sendto_timeout
constexpr std::size_t DISCOVERY_ANSWER_SIZE = 64;
// The collection holds this many full answers (each 64 bytes and a line feed) and stops once it
// has them. Room for meshes far beyond fifteen nodes.
constexpr std::size_t DISCOVERY_MAX_ANSWERS = 512;
// A collection ends at the first 2-s silence (the socket's receive time-out) and, at the latest,
// with the first datagram taken 5 silences (scaled) after the request, so a host that keeps
// sending cannot hold the cycle in the discovery step. Answers within 2 s of each other, as every
// node sends them, all arrive well within this bound.
constexpr uint32_t DISCOVERY_COLLECTION_MAX_MS = 5 * 2000;
constexpr std::size_t BROADCAST_BUFFER_SIZE = DISCOVERY_MAX_ANSWERS * (DISCOVERY_ANSWER_SIZE + 1) + 1;

// One discovery answer line, "ip,mac,discovery_value,eth_index".
struct discovery_answer {
  char ip[IP_TEXT_SIZE];
  char mac[MAC_TEXT_SIZE];
  int32_t discovery_value;
  int32_t eth_index;
};

// One discovery step. Clears broadcast_buffer; when a request is due, empties the socket of
// datagrams that came since the last collection, sends the request, sets *new_broadcast to 1 and
// collects the answers, one per line. A datagram longer than an answer is dropped with an error
// line. With discovery_check_sender set in the coordinator, lines naming another IP than the
// datagram came from are dropped (one warning per sender and request). 0, or -1 when the send
// failed.
int zunta_mesh_nodes_discovery(struct coordinator* coordinator, int32_t* new_broadcast,
                               char (&broadcast_buffer)[BROADCAST_BUFFER_SIZE]);

// True when a request is due at `now_ms` (uptime milliseconds): none sent yet, or the period
// (scaled off target) has fully passed since the last one. A request exactly one period after the
// last goes out.
bool zunta_discovery_due(const struct coordinator* coordinator, uint32_t now_ms);

// Reads one line: a dotted IPv4 address of at most 15 characters, a MAC text (17 characters: six pairs
// of hexadecimal digits and colons), then two decimal integers (blanks before each allowed, text
// after the last ignored), separated by single commas. False when a field is missing, too long or
// not of its shape, or an integer does not fit 32 bits.
bool zunta_parse_discovery_answer(const char* line, discovery_answer* answer);

// Adds an ath for every well-formed "ip,mac,value,eth_index" line not yet registered, in the order
// the lines came. A line whose MAC an earlier line announced from another IP is ignored, with one
// warning naming both. Each line feed of the buffer becomes a NUL.
void zunta_parse_broadcast_message(struct coordinator* coordinator, char* broadcast_buffer);

#endif  // ZUNTA_COORDINATOR_DISCOVERY_H_

// The coordinator object: every table of the system, the discovery socket and the schedule state.
// There is exactly one, in static storage, reached through the global pointer `coordinator`.
#ifndef ZUNTA_COORDINATOR_COORDINATOR_H_
#define ZUNTA_COORDINATOR_COORDINATOR_H_

#include <netinet/in.h>

#include <cstdint>

#include "core/clock.h"
#include "meshpair/meshpair.h"

struct options;

// The five tables come from the subsystems that own them: the aths and module clients from the
// registry, the links, pairs and trained pairs from the mesh pair tables built on it.
struct coordinator : mesh_tables {
  int32_t sockfd;  // UDP socket of the discovery exchange; -1 after a failed creation
  sockaddr_in broadcast_addr;
  sockaddr_in sender_addr;  // source of the last discovery answer
  uint8_t discovery_started;
  uint8_t discovery_check_sender;  // from the options: answers must name the address they came from
  uint32_t last_broadcast_ms;
  char last_training[TIME_TEXT_SIZE];  // "%H:%M:%S" of the last training start; empty before
  int32_t last_hour;                   // hour seen by the previous schedule check; 25 at start-up
  int32_t period_base_minute;          // minute at which periodic retraining was armed
};

extern struct coordinator* coordinator;

// Allocates the (unused) master record and starts logging with every component at level 2.
// 0, or -1 after writing the reason on standard error.
int master_init(int argc, char** argv);
// Frees the master record; part of the exit path.
void master_free();

// Opens the UDP broadcast socket, builds broadcast_addr from the options and empties the five
// tables. 0, or -1 when the socket cannot be made a broadcast socket.
int zunta_coordinator_init(struct coordinator* coordinator, const options* opts);

// Sets mesh_pair_count and mesh_link_count to 0; the lists stay as they are.
void zunta_reset_coordinator_counters(struct coordinator* coordinator);

#endif  // ZUNTA_COORDINATOR_COORDINATOR_H_

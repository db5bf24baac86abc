// The settings of the coordinator and the reader of the configuration file.
#ifndef ZUNTA_COORDINATOR_OPTIONS_H_
#define ZUNTA_COORDINATOR_OPTIONS_H_

#include <cstdint>

#include "core/text.h"

constexpr char DEFAULT_BROADCAST_ADDRESS[] = "192.168.1.255";
constexpr uint16_t DEFAULT_BROADCAST_PORT = 12101;
constexpr int32_t TRAINING_FREQUENCY_MIN_MINUTES = 5;
constexpr int32_t TRAINING_FREQUENCY_MAX_MINUTES = 1380;  // 23 hours

struct options {
  uint8_t root;  // 1 when this node is the mesh root
  char broadcast_address[IP_TEXT_SIZE];
  uint16_t broadcast_port;
  int32_t training_start_hour;         // 0..23
  int32_t training_frequency_minutes;  // 0 (no period) or 5..1380
  uint8_t parallel_training = 0;       // 1: pairs two hops apart train together
};

// Sets root, broadcast_address and broadcast_port to their defaults; leaves the fields that every
// load rewrites.
void zunta_init_config_options(options* opts);

// Reads key=value lines of the file at path into opts. The two schedule fields and
// parallel_training are reset to 0 first, on every load; the other fields change only when their
// key is present.
// Returns 0 when the file was read to its end, -1 when it could not be opened.
int zunta_config_load_options(const char* path, options* opts);

#endif  // ZUNTA_COORDINATOR_OPTIONS_H_

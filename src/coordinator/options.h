// The settings of the coordinator and the reader of the configuration file.
#ifndef ZUNTA_COORDINATOR_OPTIONS_H_
#define ZUNTA_COORDINATOR_OPTIONS_H_

#include <cstddef>
#include <cstdint>

#include "core/runtime.h"
#include "core/text.h"

constexpr char DEFAULT_BROADCAST_ADDRESS[] = "192.168.1.255";
constexpr uint16_t DEFAULT_BROADCAST_PORT = 12101;
constexpr int32_t TRAINING_FREQUENCY_MIN_MINUTES = 5;
constexpr int32_t TRAINING_FREQUENCY_MAX_MINUTES = 1380;  // 23 hours
// A configuration file larger than this is not loaded: it is not a configuration of this program,
// and reading it once a second would flood the log with warnings.
constexpr std::size_t CONFIG_MAX_BYTES = 64 * 1024;

struct options {
  uint8_t root;  // 1 when this node is the mesh root
  char broadcast_address[IP_TEXT_SIZE];
  uint16_t broadcast_port;
  int32_t training_start_hour;         // 0..23
  int32_t training_frequency_minutes;  // 0 (no period) or 5..1380
  // 1: discovery answer lines naming another address than their source are dropped. Off unless
  // the file turns it on.
  uint8_t discovery_check_sender = 0;
  uint8_t parallel_training = 0;  // 1: pairs two hops apart train together; off unless the file says true
  // Absolute path of the file that keeps the trained pairs across restarts; empty (no memory, nothing
  // read or written) unless the file names one.
  char training_memory[RUNTIME_PATH_SIZE] = {};
};

// Sets root, broadcast_address, broadcast_port, discovery_check_sender, parallel_training and
// training_memory to their defaults; leaves the schedule fields.
void zunta_init_config_options(options* opts);

// Reads key=value lines of the file at path into opts. The two schedule fields are reset to 0
// first, on every load; discovery_check_sender, parallel_training and training_memory are reset once
// the file has been read, so they follow the file and a failed load keeps them; the other fields change only
// when their key is present. Returns 0 when the file was read to its end, -1 when it could not be opened, is
// not a regular file or is larger than CONFIG_MAX_BYTES (nothing of it is applied then). The open never
// blocks, so a FIFO or a device in place of the file cannot stall the cycle.
int zunta_config_load_options(const char* path, options* opts);

// Applies the configuration text of `size` bytes (NUL bytes allowed) to opts, as a load applies
// the file's contents: lines of at most 127 characters, a longer one in several pieces.
void zunta_config_parse_text(const char* text, std::size_t size, options* opts);

#endif  // ZUNTA_COORDINATOR_OPTIONS_H_

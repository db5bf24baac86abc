// The configuration reader: key=value lines, reloaded at the top of every cycle.
#include "coordinator/options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/fd.h"
#include "core/log.h"

namespace {

constexpr std::size_t CONFIG_READ_SIZE = 128;  // a longer line arrives in several reads

// The leading decimal integer of text, like "%d": false when text does not begin with a number
// (after blanks) or the number does not fit 32 bits.
bool scan_int32(const char* text, int32_t* value) {
  char* end = nullptr;
  errno = 0;
  long parsed = std::strtol(text, &end, 10);
  if (end == text) return false;
  if (errno == ERANGE || parsed < INT32_MIN || parsed > INT32_MAX) {
    *value = parsed < 0 ? INT32_MIN : INT32_MAX;  // out of every accepted range
    return true;
  }
  *value = static_cast<int32_t>(parsed);
  return true;
}

void set_root(const char* value, options* opts) {
  opts->root = std::strcmp(value, "true") == 0 ? 1 : 0;
}

void set_broadcast_address(const char* value, options* opts) {
  char word[CONFIG_READ_SIZE];
  if (std::sscanf(value, "%127s", word) != 1) return;  // empty or all blanks: unchanged
  // A word too long for a dotted IPv4 address is refused rather than cut: a cut address could be
  // a valid but different one, and the discovery request would go to the wrong network.
  if (std::strlen(word) >= sizeof opts->broadcast_address) {
    ZLOG(COMP_CORE, LVL_W, "broadcast_address longer than %d characters ignored, %s kept\n",
         static_cast<int>(sizeof opts->broadcast_address - 1), opts->broadcast_address);
    return;
  }
  zunta_copy_text(opts->broadcast_address, word);
}

void set_broadcast_port(const char* value, options* opts) {
  int32_t port = 0;
  // Only the low 16 bits are kept, read back unsigned.
  if (scan_int32(value, &port)) opts->broadcast_port = static_cast<uint16_t>(static_cast<uint32_t>(port));
}

void set_training_start_hour(const char* value, options* opts) {
  if (!scan_int32(value, &opts->training_start_hour)) return;
  if (opts->training_start_hour < 0 || opts->training_start_hour > 23) {
    ZLOG(COMP_CORE, LVL_I, "training_start_hour must be between 0 and 23. Set to default (0)\n");
    opts->training_start_hour = 0;
  }
}

void set_training_frequency(const char* value, options* opts) {
  int32_t& minutes = opts->training_frequency_minutes;
  if (!scan_int32(value, &minutes)) return;
  if (minutes != 0 &&
      (minutes < TRAINING_FREQUENCY_MIN_MINUTES || minutes > TRAINING_FREQUENCY_MAX_MINUTES)) {
    ZLOG(COMP_CORE, LVL_I,
         "training_frequency_minutes must be 0 (disabled) or between %d and %d (23h). Set to default (0)\n",
         TRAINING_FREQUENCY_MIN_MINUTES, TRAINING_FREQUENCY_MAX_MINUTES);
    minutes = 0;
  }
}

void set_parallel_training(const char* value, options* opts) {
  opts->parallel_training = std::strcmp(value, "true") == 0 ? 1 : 0;
}

struct config_key {
  const char* key;
  void (*apply)(const char* value, options* opts);
};

constexpr config_key CONFIG_KEYS[] = {
    {"root", set_root},
    {"broadcast_address", set_broadcast_address},
    {"broadcast_port", set_broadcast_port},
    {"training_start_hour", set_training_start_hour},
    {"training_frequency_minutes", set_training_frequency},
    {"parallel_training", set_parallel_training},
};

// Handles one read of the file; `number` counts reads, so a long line counts more than once.
void load_line(char* line, int number, options* opts) {
  if (line[0] == '#' || line[0] == '\0') return;
  char* equals = std::strchr(line, '=');
  if (equals == nullptr) {
    ZLOG(COMP_CORE, LVL_W, "WARN: no '=' found at line %d\n", number);
    return;
  }
  *equals = '\0';
  const char* key = line;  // exactly as written: no trimming, no case folding
  char* value = equals + 1;
  value[std::strcspn(value, "\r\n")] = '\0';
  ZLOG(COMP_CORE, LVL_I, "%d>--%s--%s--\n", number, key, value);
  for (const config_key& k : CONFIG_KEYS) {
    if (std::strcmp(key, k.key) == 0) k.apply(value, opts);
  }
}

}  // namespace

void zunta_init_config_options(options* opts) {
  if (opts == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for options\n");
    return;
  }
  opts->root = 0;
  zunta_copy_text(opts->broadcast_address, DEFAULT_BROADCAST_ADDRESS);
  opts->broadcast_port = DEFAULT_BROADCAST_PORT;
  ZLOG(COMP_CORE, LVL_I, "Init options DONE\n");
}

int zunta_config_load_options(const char* path, options* opts) {
  if (opts == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for options\n");
    return -1;
  }
  // The schedule and the training mode are rewritten by every load: a missing key or file leaves
  // them at 0.
  opts->training_start_hour = 0;
  opts->training_frequency_minutes = 0;
  opts->parallel_training = 0;
  unique_file file(std::fopen(path, "r"));
  if (!file) {
    ZLOG(COMP_CORE, LVL_I, "Failed to open configuration file %s\n", path);
    return -1;
  }
  ZLOG(COMP_CORE, LVL_I, "Loading configuration file %s.\n", path);
  char line[CONFIG_READ_SIZE];
  int number = 0;
  while (std::fgets(line, sizeof line, file.get()) != nullptr)
    load_line(line, ++number, opts);
  return 0;
}

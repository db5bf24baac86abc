// The configuration reader: key=value lines, reloaded at the top of every cycle.
#include "coordinator/options.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/fd.h"
#include "core/heap.h"
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

void set_root(const char* value, int, options* opts) {
  opts->root = std::strcmp(value, "true") == 0 ? 1 : 0;
}

void set_discovery_check_sender(const char* value, int, options* opts) {
  opts->discovery_check_sender = std::strcmp(value, "true") == 0 ? 1 : 0;
}

void set_broadcast_address(const char* value, int number, options* opts) {
  char word[CONFIG_READ_SIZE];
  if (std::sscanf(value, "%127s", word) != 1) return;  // empty or all blanks: unchanged
  // Only a complete dotted quad is taken. A cut, short ("127.77.5") or out-of-range word would
  // otherwise send the discovery request to some other network, or to every host of this one.
  in_addr parsed{};
  if (inet_pton(AF_INET, word, &parsed) != 1) {
    ZLOG(COMP_CORE, LVL_W, "broadcast_address at line %d is not a dotted IPv4 address: %s; %s kept\n", number,
         word, opts->broadcast_address);
    return;
  }
  zunta_copy_text(opts->broadcast_address, word);  // at most 15 characters once inet_pton took it
}

void set_broadcast_port(const char* value, int, options* opts) {
  int32_t port = 0;
  // Only the low 16 bits are kept, read back unsigned.
  if (scan_int32(value, &port)) opts->broadcast_port = static_cast<uint16_t>(static_cast<uint32_t>(port));
}

void set_training_start_hour(const char* value, int, options* opts) {
  if (!scan_int32(value, &opts->training_start_hour)) return;
  if (opts->training_start_hour < 0 || opts->training_start_hour > 23) {
    ZLOG(COMP_CORE, LVL_I, "training_start_hour must be between 0 and 23. Set to default (0)\n");
    opts->training_start_hour = 0;
  }
}

void set_training_frequency(const char* value, int, options* opts) {
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

void set_parallel_training(const char* value, int, options* opts) {
  opts->parallel_training = std::strcmp(value, "true") == 0 ? 1 : 0;
}

// The first word of the value, an absolute path. Anything else turns the memory off for this load:
// a relative path would depend on the directory the daemon happens to be started in.
void set_training_memory(const char* value, int number, options* opts) {
  static_assert(CONFIG_READ_SIZE <= sizeof opts->training_memory, "every word of a line fits");
  char word[CONFIG_READ_SIZE];
  opts->training_memory[0] = '\0';
  if (std::sscanf(value, "%127s", word) != 1) return;  // empty: no memory
  if (word[0] != '/') {
    ZLOG(COMP_CORE, LVL_W, "training_memory at line %d is not an absolute path: %s; no training memory\n",
         number, word);
    return;
  }
  zunta_copy_text(opts->training_memory, word);  // a line holds fewer characters than the field
}

struct config_key {
  const char* key;
  void (*apply)(const char* value, int number, options* opts);
};

constexpr config_key CONFIG_KEYS[] = {
    {"root", set_root},
    {"broadcast_address", set_broadcast_address},
    {"broadcast_port", set_broadcast_port},
    {"training_start_hour", set_training_start_hour},
    {"training_frequency_minutes", set_training_frequency},
    {"discovery_check_sender", set_discovery_check_sender},
    {"parallel_training", set_parallel_training},
    {"training_memory", set_training_memory},
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
    if (std::strcmp(key, k.key) == 0) k.apply(value, number, opts);
  }
}

// Reads the whole file into text (CONFIG_MAX_BYTES + 1 bytes) without ever blocking: the open does
// not wait for a FIFO's writer, and anything but a regular file is refused before a byte is read,
// so a device such as /dev/zero cannot keep the cycle reading. A file larger than
// CONFIG_MAX_BYTES is refused. False (with the reason logged) when the file cannot be used.
bool read_config_file(const char* path, char* text, std::size_t* size) {
  unique_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!fd.valid()) {
    ZLOG(COMP_CORE, LVL_I, "Failed to open configuration file %s\n", path);
    return false;
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    ZLOG(COMP_CORE, LVL_W, "Configuration file %s is not a regular file\n", path);
    return false;
  }
  // Reading one byte more than allowed also catches a file that grows while it is read.
  std::size_t got = 0;
  while (static_cast<uint64_t>(st.st_size) <= CONFIG_MAX_BYTES && got <= CONFIG_MAX_BYTES) {
    ssize_t n = read(fd.get(), text + got, CONFIG_MAX_BYTES + 1 - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ZLOG(COMP_CORE, LVL_W, "Configuration file %s cannot be read\n", path);
      return false;
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  if (static_cast<uint64_t>(st.st_size) > CONFIG_MAX_BYTES || got > CONFIG_MAX_BYTES) {
    ZLOG(COMP_CORE, LVL_W, "Configuration file %s is larger than %d bytes, not loaded\n", path,
         static_cast<int>(CONFIG_MAX_BYTES));
    return false;
  }
  *size = got;
  return true;
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
  opts->discovery_check_sender = 0;
  opts->parallel_training = 0;
  opts->training_memory[0] = '\0';
  ZLOG(COMP_CORE, LVL_I, "Init options DONE\n");
}

int zunta_config_load_options(const char* path, options* opts) {
  if (opts == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for options\n");
    return -1;
  }
  // The schedule is rewritten by every load: a missing key or file leaves both at 0.
  opts->training_start_hour = 0;
  opts->training_frequency_minutes = 0;
  std::unique_ptr<char, free_deleter> text(static_cast<char*>(std::malloc(CONFIG_MAX_BYTES + 1)));
  if (!text) {
    ZLOG(COMP_CORE, LVL_E, "Memory allocation error for the configuration file\n");
    return -1;
  }
  std::size_t size = 0;
  if (!read_config_file(path, text.get(), &size)) return -1;
  ZLOG(COMP_CORE, LVL_I, "Loading configuration file %s.\n", path);
  zunta_config_parse_text(text.get(), size, opts);
  return 0;
}

void zunta_config_parse_text(const char* text, std::size_t size, options* opts) {
  if (opts == nullptr || text == nullptr) return;
  opts->discovery_check_sender = 0;  // follows the file: off unless a line turns it on
  opts->parallel_training = 0;       // the same
  opts->training_memory[0] = '\0';   // the same: no memory unless a line names the file
  // Pieces as a line reader with a 128-byte buffer takes them: up to and including a line feed,
  // at most 127 bytes. A NUL byte inside a piece ends its text there.
  char line[CONFIG_READ_SIZE];
  int number = 0;
  for (std::size_t at = 0; at < size;) {
    std::size_t len = 0;
    while (len + 1 < sizeof line && at + len < size) {
      if (text[at + len++] == '\n') break;
    }
    std::memcpy(line, text + at, len);
    line[len] = '\0';
    at += len;
    load_line(line, ++number, opts);
  }
}

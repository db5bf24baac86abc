// The logger's record, its three prefixes and the dump file.
#include "core/log.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstdio>

#include "core/clock.h"
#include "core/fd.h"

const char logLevelNames[LOG_LEVEL_COUNT][2] = {"E", "W", "U", "I", "D", "A"};
const char logComponentNames[LOG_COMPONENT_COUNT][5] = {"CORE", "SLV", "UTL", "FLOW", "DUMP",
                                                        "ANT",  "MP",  "TR",  "ATH"};

log_state global_log = {{}, "/tmp/zunta-dump.log", {}, {}};
log_state* g_log = nullptr;

int log_init(int32_t level, int32_t aux) {
  g_log = &global_log;
  for (log_component& c : global_log.components) {
    c.level = level;
    c.aux = 0;
  }
  global_log.components[COMP_DUMP].aux = aux;
  // The origin of the stamps is read from the monotonic clock, which a change of the time of day
  // does not move; start_tz keeps its place in the record and stays empty.
  zunta_monotonic_time(&global_log.start_time);
  return 0;
}

int log_record(const char* func, int line, int component, int level, const char* format, ...) {
  if (level == LVL_E) {
    std::printf("ZUNTA: ERROR: %s:%d: ", func, line);
  } else if (level == LVL_U) {
    std::printf("zunta-coord: ");
  } else {
    // long is 32 bits on the target; the stamp is a signed 32-bit count either way.
    std::printf("[%8ld] ZUNTA:%s:%4s: ", static_cast<long>(uptime_ms()), logLevelNames[level],
                logComponentNames[component]);
  }
  va_list args;
  va_start(args, format);
  int count = std::vprintf(format, args);
  va_end(args);
  return count;
}

void dump_record(const char* format, ...) {
  // A link planted at the name is not followed: the text would land in whatever it points to.
  unique_fd fd(::open(global_log.dump_file, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd.valid()) return;
  unique_file file(fdopen(fd.get(), "a"));
  if (!file) return;
  fd.release();
  va_list args;
  va_start(args, format);
  std::vfprintf(file.get(), format, args);
  va_end(args);
}

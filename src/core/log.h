// The logger: one global record with a level per component, three line prefixes on standard output,
// and an append-only dump file. Include from .cc files only (it defines the ZLOG macro).
#ifndef ZUNTA_CORE_LOG_H_
#define ZUNTA_CORE_LOG_H_

#include <sys/time.h>

#include <cstdint>

// Component indexes into logComponentNames and global_log.components.
enum : int {
  COMP_CORE = 0,
  COMP_SLV = 1,
  COMP_UTL = 2,
  COMP_FLOW = 3,
  COMP_DUMP = 4,
  COMP_ANT = 5,
  COMP_MP = 6,
  COMP_TR = 7,
  COMP_ATH = 8,
};
constexpr int LOG_COMPONENT_COUNT = 9;

// Message levels; a lower number is more important.
enum : int { LVL_E = 0, LVL_W = 1, LVL_U = 2, LVL_I = 3, LVL_D = 4, LVL_A = 5 };
constexpr int LOG_LEVEL_COUNT = 6;

extern const char logLevelNames[LOG_LEVEL_COUNT][2];
extern const char logComponentNames[LOG_COMPONENT_COUNT][5];

struct log_component {
  int32_t level;  // most verbose level printed for the component
  int32_t aux;    // zero, except DUMP, which keeps log_init's second argument; nothing reads it
};

struct log_state {
  log_component components[LOG_COMPONENT_COUNT];
  char dump_file[128];
  timeval start_time;  // origin of uptime_ms()
  struct timezone start_tz;
};

extern log_state global_log;
// Null until log_init runs; every call site tests it before reading a level.
extern log_state* g_log;

// Points g_log at global_log, sets every component to `level`, DUMP's aux to `aux`, and takes the
// start time. Always returns 0.
int log_init(int32_t level, int32_t aux);

// Prints the prefix for `level` and the formatted message on standard output. Does not filter:
// callers test the component's level first (ZLOG does). Returns the message's character count.
int log_record(const char* func, int line, int component, int level, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Appends the formatted text to the dump file, opening and closing it on every call. When the file
// cannot be opened the text is dropped.
void dump_record(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The level test runs at the call site, so a disabled message costs one compare and its arguments
// are never evaluated; __func__ and __LINE__ are the caller's because the macro expands there.
#define ZLOG(comp_, lvl_, ...)                                        \
  do {                                                                \
    if (g_log != nullptr && g_log->components[comp_].level >= (lvl_)) \
      log_record(__func__, __LINE__, (comp_), (lvl_), __VA_ARGS__);   \
  } while (0)

// The same for a line that a helper writes on behalf of a named procedure: the line names `proc_`,
// not the helper, because error lines print the procedure's name and log readers match on it.
// Every level-E line outside the procedure it belongs to (anonymous-namespace helpers, split-out
// steps) uses this form, so extracting or renaming a helper cannot change what a line says.
#define ZLOG_AS(proc_, comp_, lvl_, ...)                              \
  do {                                                                \
    if (g_log != nullptr && g_log->components[comp_].level >= (lvl_)) \
      log_record((proc_), __LINE__, (comp_), (lvl_), __VA_ARGS__);    \
  } while (0)

#endif  // ZUNTA_CORE_LOG_H_

// Environment overrides and the scaled waits.
#include "core/runtime.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>

#include "core/log.h"
#include "core/text.h"

namespace {

constexpr double MAX_TIME_SCALE = 1000.0;

struct runtime {
  char conf_path[RUNTIME_PATH_SIZE];
  char snapshot_path[RUNTIME_PATH_SIZE];
  char status_json_path[RUNTIME_PATH_SIZE];
  char training_status_path[RUNTIME_PATH_SIZE];
  uint16_t agent_port;
  double time_scale;
};

runtime g_runtime = {
    "/etc/zunta.conf",          "/tmp/zunta-sa.log", "/tmp/zunta-status.json",
    "/tmp/training_status.log", AGENT_PORT,          1.0,
};

// Copies an override path; false (with the reason) when it is empty or does not fit.
template <std::size_t N>
bool take_path(const char* name, char (&dst)[N], char* error, std::size_t error_size) {
  const char* value = std::getenv(name);
  if (value == nullptr) return true;
  if (value[0] == '\0' || !zunta_copy_text(dst, value)) {
    zunta_format_buffer(error, error_size, "%s must be a path of 1 to %zu characters", name, N - 1);
    return false;
  }
  return true;
}

bool take_port(uint16_t* port, char* error, std::size_t error_size) {
  const char* value = std::getenv("ZUNTA_AGENT_PORT");
  if (value == nullptr) return true;
  char* end = nullptr;
  errno = 0;
  long parsed = std::strtol(value, &end, 10);
  if (errno != 0 || end == value || *end != '\0' || parsed < 1 || parsed > 65535) {
    zunta_format_buffer(error, error_size, "ZUNTA_AGENT_PORT must be a port from 1 to 65535, got '%s'",
                        value);
    return false;
  }
  *port = static_cast<uint16_t>(parsed);
  return true;
}

bool take_scale(double* scale, char* error, std::size_t error_size) {
  const char* value = std::getenv("ZUNTA_TIME_SCALE");
  if (value == nullptr) return true;
  char* end = nullptr;
  errno = 0;
  double parsed = std::strtod(value, &end);
  // The bound keeps every scaled wait, even of a measurement interval of 2^31 s, inside 64-bit
  // microseconds, and the scaled 60-s discovery period inside a signed 32-bit millisecond count.
  if (errno != 0 || end == value || *end != '\0' || !std::isfinite(parsed) || parsed <= 0.0 ||
      parsed > MAX_TIME_SCALE) {
    zunta_format_buffer(error, error_size,
                        "ZUNTA_TIME_SCALE must be a positive decimal number up to %d, got '%s'",
                        static_cast<int>(MAX_TIME_SCALE), value);
    return false;
  }
  *scale = parsed;
  return true;
}

}  // namespace

int zunta_runtime_init(char* error, std::size_t error_size) {
  runtime next = g_runtime;
  char dump_file[sizeof global_log.dump_file];
  zunta_copy_text(dump_file, global_log.dump_file);
  if (!take_path("ZUNTA_CONF", next.conf_path, error, error_size) ||
      !take_path("ZUNTA_SNAPSHOT", next.snapshot_path, error, error_size) ||
      !take_path("ZUNTA_STATUS_JSON", next.status_json_path, error, error_size) ||
      !take_path("ZUNTA_TRAINING_STATUS_FILE", next.training_status_path, error, error_size) ||
      !take_path("ZUNTA_DUMP_FILE", dump_file, error, error_size) ||
      !take_port(&next.agent_port, error, error_size) || !take_scale(&next.time_scale, error, error_size)) {
    return -1;
  }
  g_runtime = next;
  zunta_copy_text(global_log.dump_file, dump_file);
  return 0;
}

const char* zunta_conf_path() {
  return g_runtime.conf_path;
}
const char* zunta_snapshot_path() {
  return g_runtime.snapshot_path;
}
const char* zunta_status_json_path() {
  return g_runtime.status_json_path;
}
const char* zunta_training_status_path() {
  return g_runtime.training_status_path;
}
uint16_t zunta_agent_port() {
  return g_runtime.agent_port;
}
double zunta_time_scale() {
  return g_runtime.time_scale;
}

int64_t zunta_scaled_us(int64_t us) {
  if (us <= 0) return 0;
  auto scaled = static_cast<int64_t>(static_cast<double>(us) * g_runtime.time_scale + 0.5);
  return scaled > 0 ? scaled : 1;  // a wait never shrinks to nothing
}

uint32_t zunta_scaled_ms(uint32_t ms) {
  return static_cast<uint32_t>((zunta_scaled_us(static_cast<int64_t>(ms) * 1000) + 999) / 1000);
}

timeval zunta_scaled_timeval(int64_t us) {
  int64_t scaled = zunta_scaled_us(us);
  timeval tv{};
  tv.tv_sec = scaled / 1000000;
  tv.tv_usec = scaled % 1000000;
  return tv;
}

namespace {

constexpr int64_t NO_TASK_DUE_US = INT64_C(1) << 62;

struct wait_task_slot {
  wait_task task;
  int64_t period_us;
  int64_t last_us;  // monotonic time of the last run, or of the set-up
};
wait_task_slot g_wait_task = {nullptr, 0, 0};
bool g_in_wait_task = false;  // the task itself may wait; it is never re-entered

void sleep_us(int64_t us) {
  if (us <= 0) return;
  timespec left{static_cast<time_t>(us / 1000000), static_cast<long>((us % 1000000) * 1000)};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace

void zunta_set_wait_task(wait_task task, int64_t period_us) {
  g_wait_task = {task, period_us > 0 ? period_us : 1, zunta_monotonic_us()};
}

void zunta_wait_tick() {
  if (g_wait_task.task == nullptr || g_in_wait_task) return;
  const int64_t now = zunta_monotonic_us();
  if (now - g_wait_task.last_us < g_wait_task.period_us) return;
  g_wait_task.last_us = now;
  g_in_wait_task = true;
  g_wait_task.task();
  g_in_wait_task = false;
}

int64_t zunta_wait_tick_due_in_us() {
  if (g_wait_task.task == nullptr || g_in_wait_task) return NO_TASK_DUE_US;
  const int64_t due = g_wait_task.last_us + g_wait_task.period_us - zunta_monotonic_us();
  return due > 0 ? due : 0;
}

void zunta_pause_us(int64_t us) {
  // The pause ends at a fixed monotonic time, whatever the task costs on the way.
  const int64_t end = zunta_monotonic_us() + zunta_scaled_us(us);
  for (;;) {
    const int64_t left = end - zunta_monotonic_us();
    if (left <= 0) return;
    const int64_t due = zunta_wait_tick_due_in_us();
    sleep_us(left < due ? left : due);
    zunta_wait_tick();
  }
}

int64_t zunta_monotonic_us() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

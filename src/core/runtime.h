// Overrides for running off the target, read once at start-up from the environment, and the one
// place where every wait of the system is taken. With no override set, every path, the agent port
// and every wait are exactly the product's own.
//
//   ZUNTA_CONF                  configuration file        (/etc/zunta.conf)
//   ZUNTA_SNAPSHOT              status snapshot           (/tmp/zunta-sa.log)
//   ZUNTA_STATUS_JSON           JSON status document      (/tmp/zunta-status.json)
//   ZUNTA_DUMP_FILE             dump file                 (/tmp/zunta-dump.log)
//   ZUNTA_TRAINING_STATUS_FILE  training status file      (/tmp/training_status.log)
//   ZUNTA_AGENT_PORT            TCP port of node agents   (12458)
//   ZUNTA_TIME_SCALE            factor on every wait      (1)
#ifndef ZUNTA_CORE_RUNTIME_H_
#define ZUNTA_CORE_RUNTIME_H_

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

constexpr uint16_t AGENT_PORT = 12458;
constexpr std::size_t RUNTIME_PATH_SIZE = 256;

// Reads the overrides. Returns 0, or -1 with a one-line reason (no line feed) in `error` when a
// value is invalid: a time scale that is not a positive number up to 1000, a port outside 1..65535, an
// empty or over-long path. Nothing is changed on -1.
int zunta_runtime_init(char* error, std::size_t error_size);

const char* zunta_conf_path();
const char* zunta_snapshot_path();
const char* zunta_status_json_path();
const char* zunta_training_status_path();
uint16_t zunta_agent_port();
double zunta_time_scale();

// Every wait goes through these, so the time scale holds everywhere. Real clocks (uptime stamps)
// are never scaled.
int64_t zunta_scaled_us(int64_t us);
uint32_t zunta_scaled_ms(uint32_t ms);
timeval zunta_scaled_timeval(int64_t us);
void zunta_pause_us(int64_t us);
// Real microseconds of the monotonic clock (never scaled), the time base of every deadline.
int64_t zunta_monotonic_us();

// A task run from inside the long waits (the pauses, and the exchange loop of the command channel),
// at most once per `period_us` of real time, so that what the daemon publishes stays fresh while it
// blocks in a training pass. One task at a time; a null task removes it. Waits that block for a
// long time call zunta_wait_tick() whenever they wake and never sleep longer than
// zunta_wait_tick_due_in_us() at a stretch.
using wait_task = void (*)();
void zunta_set_wait_task(wait_task task, int64_t period_us);
// Runs the task when its period has passed since it last ran (or was set).
void zunta_wait_tick();
// Microseconds until the task is due; a large value when there is none.
int64_t zunta_wait_tick_due_in_us();

#endif  // ZUNTA_CORE_RUNTIME_H_

// Millisecond clock of the logger and the discovery timer, and local-time texts. The millisecond
// clock runs on a monotonic source, so setting the time of day (by hand or by time
// synchronisation at boot) moves only the local-time texts, never the stamps or the discovery
// period.
#ifndef ZUNTA_CORE_CLOCK_H_
#define ZUNTA_CORE_CLOCK_H_

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

constexpr std::size_t TIME_TEXT_SIZE = 32;

// Milliseconds from `from` to `to`; wraps as a signed 32-bit value after about 24.8 days.
// A missing argument logs "null pointer" and gives 0.
int32_t timevaldiff(const timeval* from, const timeval* to);

// The two time sources, each filling a time value: `monotonic` counts from an arbitrary origin and
// never jumps; `wall` is the time of day. The product reads CLOCK_MONOTONIC and gettimeofday;
// tests install their own.
using clock_source = void (*)(timeval* now);
struct clock_sources {
  clock_source monotonic;
  clock_source wall;
};

// Installs `sources` (a null member keeps the current one) and returns the previous pair.
clock_sources zunta_set_clock_sources(clock_sources sources);
void zunta_monotonic_time(timeval* now);
void zunta_wall_time(timeval* now);

// Real milliseconds of the monotonic source since log_init (never scaled). Requires log_init to
// have run.
int32_t uptime_ms();

// now - then of two 32-bit millisecond readings, modulo 2^32 and read as signed, so a wrap of
// the counter between the readings still gives the elapsed time.
int32_t timediff(uint32_t now, uint32_t then);

// Current local time as "%H:%M:%S" and "%F %H:%M:%S".
void print_systime(char (&text)[TIME_TEXT_SIZE]);
void print_datetime(char (&text)[TIME_TEXT_SIZE]);
// Wall-clock `seconds` as local time in ISO 8601 with the offset from UTC,
// "2026-11-25T15:04:05+01:00". False (text empty) when the time cannot be converted.
bool print_iso_time(char (&text)[TIME_TEXT_SIZE], int64_t seconds);

#endif  // ZUNTA_CORE_CLOCK_H_

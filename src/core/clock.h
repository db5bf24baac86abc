// Millisecond clock of the logger and the discovery timer, and local-time texts.
#ifndef ZUNTA_CORE_CLOCK_H_
#define ZUNTA_CORE_CLOCK_H_

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

constexpr std::size_t TIME_TEXT_SIZE = 32;

// Milliseconds from `from` to `to`; wraps as a signed 32-bit value after about 24.8 days.
// A missing argument logs "null pointer" and gives 0.
int32_t timevaldiff(const timeval* from, const timeval* to);

// Real milliseconds since log_init (never scaled). Requires log_init to have run.
int32_t uptime_ms();

// now - then of two 32-bit millisecond readings, modulo 2^32 and read as signed, so a wrap of
// the counter between the readings still gives the elapsed time.
int32_t timediff(uint32_t now, uint32_t then);

// Current local time as "%H:%M:%S" and "%F %H:%M:%S".
void print_systime(char (&text)[TIME_TEXT_SIZE]);
void print_datetime(char (&text)[TIME_TEXT_SIZE]);

#endif  // ZUNTA_CORE_CLOCK_H_

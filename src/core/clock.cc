// Millisecond clock and local-time texts.
#include "core/clock.h"

#include <ctime>

#include "core/log.h"
#include "core/platform.h"
#include "core/text.h"

int32_t timevaldiff(const timeval* from, const timeval* to) {
  if (from == nullptr || to == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "null pointer\n");
    return 0;
  }
  // Seconds are multiplied in 32 bits and the sum wraps as a 32-bit value, by design; unsigned
  // arithmetic keeps the wrap defined.
  uint32_t seconds = static_cast<uint32_t>(to->tv_sec - from->tv_sec);
  int64_t micros = static_cast<int64_t>(to->tv_usec) - static_cast<int64_t>(from->tv_usec);
  uint32_t sum = seconds * 1000u + static_cast<uint32_t>(micros / 1000);
  return static_cast<int32_t>(sum);
}

namespace {

void read_monotonic(timeval* now) {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  now->tv_sec = t.tv_sec;
  now->tv_usec = static_cast<decltype(now->tv_usec)>(t.tv_nsec / 1000);
}

void read_wall(timeval* now) {
  gettimeofday(now, nullptr);
}

clock_sources g_clock = {read_monotonic, read_wall};

}  // namespace

clock_sources zunta_set_clock_sources(clock_sources sources) {
  clock_sources previous = g_clock;
  if (sources.monotonic != nullptr) g_clock.monotonic = sources.monotonic;
  if (sources.wall != nullptr) g_clock.wall = sources.wall;
  return previous;
}

void zunta_monotonic_time(timeval* now) {
  g_clock.monotonic(now);
}

void zunta_wall_time(timeval* now) {
  g_clock.wall(now);
}

int32_t uptime_ms() {
  timeval now{};
  zunta_monotonic_time(&now);
  return timevaldiff(&global_log.start_time, &now);
}

int32_t timediff(uint32_t now, uint32_t then) {
  return static_cast<int32_t>(now - then);
}

namespace {

void format_local_time(char (&text)[TIME_TEXT_SIZE], const char* format) {
  timeval now{};
  zunta_wall_time(&now);
  time_t seconds = now.tv_sec;
  tm local{};
  if (localtime_r(&seconds, &local) == nullptr || strftime(text, sizeof text, format, &local) == 0) {
    text[0] = '\0';
  }
}

}  // namespace

void print_systime(char (&text)[TIME_TEXT_SIZE]) {
  format_local_time(text, "%H:%M:%S");
}

void print_datetime(char (&text)[TIME_TEXT_SIZE]) {
  format_local_time(text, "%F %H:%M:%S");
}

bool print_iso_time(char (&text)[TIME_TEXT_SIZE], int64_t seconds) {
  text[0] = '\0';
  const auto when = static_cast<time_t>(seconds);
  tm local{};
  char date[TIME_TEXT_SIZE];
  if (static_cast<int64_t>(when) != seconds || localtime_r(&when, &local) == nullptr ||
      strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local) == 0) {
    return false;
  }
  // strftime's %z has no colon ("+0100"); the offset is written out from the seconds east of UTC.
  const long east = local.tm_gmtoff;
  const long minutes = (east < 0 ? -east : east) / 60;
  if (!zunta_format_buffer(text, sizeof text, "%s%c%02ld:%02ld", date, east < 0 ? '-' : '+', minutes / 60,
                           minutes % 60)) {
    text[0] = '\0';
    return false;
  }
  return true;
}

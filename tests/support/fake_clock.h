// Both clock sources under the test's hand while in scope: they start at the real readings and
// move only when the test moves them.
#ifndef ZUNTA_TESTS_SUPPORT_FAKE_CLOCK_H_
#define ZUNTA_TESTS_SUPPORT_FAKE_CLOCK_H_

#include <cstdint>

#include "core/clock.h"

class fake_clock {
 public:
  fake_clock() {
    previous_ = zunta_set_clock_sources({read_monotonic, read_wall});
    previous_.monotonic(&monotonic_);
    previous_.wall(&wall_);
  }
  ~fake_clock() { zunta_set_clock_sources(previous_); }
  fake_clock(const fake_clock&) = delete;
  fake_clock& operator=(const fake_clock&) = delete;

  // Time passing: both clocks move on.
  void advance_ms(int64_t ms) {
    move(&monotonic_, ms);
    move(&wall_, ms);
  }
  // The time of day being set: only the wall clock moves.
  void set_wall_by_ms(int64_t ms) { move(&wall_, ms); }

 private:
  static void move(timeval* t, int64_t ms) {
    int64_t us = static_cast<int64_t>(t->tv_sec) * 1000000 + t->tv_usec + ms * 1000;
    t->tv_sec = static_cast<time_t>(us / 1000000);
    t->tv_usec = static_cast<suseconds_t>(us % 1000000);
  }
  static void read_monotonic(timeval* now) { *now = monotonic_; }
  static void read_wall(timeval* now) { *now = wall_; }

  static inline timeval monotonic_{};
  static inline timeval wall_{};
  clock_sources previous_{};
};

#endif  // ZUNTA_TESTS_SUPPORT_FAKE_CLOCK_H_

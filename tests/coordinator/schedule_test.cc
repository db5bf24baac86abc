#include "coordinator/schedule.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "coordinator/options.h"

namespace {

using times = std::vector<std::string>;

struct schedule {
  options opts{};
  int32_t last_hour = 25, base_minute = 0, state = TRAINING_STATE_FIRST_DONE;

  // One check per simulated minute from day/hour/minute on; the times ("d1 03:00") it fired.
  times run(int day, int hour, int minute, int minutes) {
    times fired;
    for (int t = (day * 24 + hour) * 60 + minute, end = t + minutes; t < end; ++t) {
      char at[32];
      std::snprintf(at, sizeof at, "d%d %02d:%02d", t / 1440, t / 60 % 24, t % 60);
      if (zunta_training_time_decision(t / 60 % 24, t % 60, &last_hour, &base_minute, &opts, &state) == 0)
        fired.push_back(at);
    }
    return fired;
  }
};

TEST(TrainingScheduleTest, PeriodicTriggerLooksOnlyAtTheMinuteWithinTheHour) {
  const std::pair<int32_t, times> cases[] = {
      {20, {"d0 07:10", "d0 07:30", "d0 07:50", "d0 08:10", "d0 08:30", "d0 08:50"}},
      {45, {"d0 07:10", "d0 07:55", "d0 08:10", "d0 08:55"}},
      {60, {"d0 07:10", "d0 08:10"}},
      {0, {"d0 07:10", "d0 08:10"}}};  // period removed from the file after arming
  for (const auto& [frequency, fired] : cases) {
    SCOPED_TRACE(frequency);
    EXPECT_EQ(fired, (schedule{{0, "", 0, 5, frequency}, 7, 10, TRAINING_STATE_PERIODIC}.run(0, 7, 0, 120)));
  }
}

// Three days (4320 minutes) from 10:00 on.
TEST(TrainingScheduleTest, StartHourWithoutPeriodFiresOnceEveryDay) {
  EXPECT_EQ((times{"d1 00:00", "d2 00:00", "d3 00:00"}), (schedule{{0, "", 0, 0, 0}}.run(0, 10, 0, 4320)));
  EXPECT_EQ((times{"d1 03:00", "d2 03:00", "d3 03:00"}), (schedule{{0, "", 0, 3, 0}}.run(0, 10, 0, 4320)));
}

TEST(TrainingScheduleTest, NothingBeforeFirstTrainingThenStartHourThenEveryPeriod) {
  schedule s{{0, "", 0, 3, 30}, 25, 0, TRAINING_STATE_FIRST_PENDING};
  EXPECT_EQ(-1, zunta_check_training_time(&s.last_hour, &s.base_minute, &s.opts, &s.state));
  EXPECT_TRUE(s.last_hour >= 0 && s.last_hour <= 23) << "the clock is read: " << s.last_hour;
  EXPECT_TRUE(s.run(0, 2, 30, 471).empty()) << "03:00 passes before the first training, done at 10:20";
  s.state = TRAINING_STATE_FIRST_DONE;
  EXPECT_TRUE(s.run(0, 10, 21, 999).empty()) << "nothing until 03:00";
  EXPECT_EQ((times{"d1 03:00", "d1 03:30", "d1 04:00", "d1 04:30"}), s.run(1, 3, 0, 120));
  s.last_hour = 2;  // busy until 03:07 the next day: the period is re-based there
  EXPECT_EQ((times{"d2 03:07", "d2 03:37"}), s.run(2, 3, 7, 53));
}

}  // namespace

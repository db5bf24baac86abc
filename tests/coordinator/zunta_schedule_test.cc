#include "coordinator/zunta_schedule.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "coordinator/zunta_options.h"

namespace {

// The schedule as the control cycle drives it, one check per simulated minute.
struct schedule_run {
  options opts{};
  int32_t last_hour = 25;
  int32_t base_minute = 0;
  int32_t state = TRAINING_STATE_FIRST_DONE;

  // Checks every minute from day/hour/minute on; returns the times ("d1 03:00") at which it fired.
  std::vector<std::string> run(int day, int hour, int minute, int minutes) {
    std::vector<std::string> fired;
    int t = (day * 24 + hour) * 60 + minute;
    for (int end = t + minutes; t < end; ++t) {
      int h = t / 60 % 24;
      int m = t % 60;
      if (zunta_training_time_decision(h, m, &last_hour, &base_minute, &opts, &state) != 0) continue;
      char text[32];
      std::snprintf(text, sizeof text, "d%d %02d:%02d", t / 1440, h, m);
      fired.push_back(text);
    }
    return fired;
  }
};

// Every `step` minutes of each hour from `first`, over the given days and hours.
std::vector<std::string> every(int first, int step, int from_day, int from_hour, int hours) {
  std::vector<std::string> times;
  for (int i = 0; i < hours; ++i) {
    int t = from_day * 24 + from_hour + i;
    for (int m = first; m < 60; m += step) {
      char text[32];
      std::snprintf(text, sizeof text, "d%d %02d:%02d", t / 24, t % 24, m);
      times.push_back(text);
    }
  }
  return times;
}

TEST(TrainingScheduleTest, PeriodicTriggerLooksOnlyAtTheMinuteWithinTheHour) {
  struct {
    int32_t frequency;
    int first;
    int step;
  } cases[] = {{20, 10, 20}, {45, 10, 45}, {60, 10, 60}, {90, 10, 60}, {0, 10, 60}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frequency);
    schedule_run s;
    s.opts.training_start_hour = 5;  // never entered below
    s.opts.training_frequency_minutes = c.frequency;
    s.state = TRAINING_STATE_PERIODIC;
    s.base_minute = 10;
    EXPECT_EQ(every(c.first, c.step, 0, 7, 2), s.run(0, 7, 0, 120));
  }
}

TEST(TrainingScheduleTest, StartHourWithoutPeriodFiresOnceEveryDay) {
  for (int32_t start : {0, 3}) {
    SCOPED_TRACE(start);
    schedule_run s;
    s.opts.training_start_hour = start;
    std::vector<std::string> daily;
    for (int day = 1; day <= 3; ++day)
      daily.push_back(every(0, 60, day, start, 1)[0]);
    EXPECT_EQ(daily, s.run(0, 10, 0, 3 * 24 * 60));
    EXPECT_EQ(TRAINING_STATE_FIRST_DONE, s.state);
  }
}

TEST(TrainingScheduleTest, NothingBeforeFirstTrainingThenWaitsForStartHourThenPeriodic) {
  schedule_run s;
  s.opts.training_start_hour = 3;
  s.opts.training_frequency_minutes = 30;
  s.state = TRAINING_STATE_FIRST_PENDING;
  EXPECT_TRUE(s.run(0, 2, 30, 471).empty()) << "the start hour passes before the first training";
  EXPECT_EQ(10, s.last_hour);
  s.state = TRAINING_STATE_FIRST_DONE;  // first training done at 10:20
  EXPECT_TRUE(s.run(0, 10, 21, 16 * 60 + 39).empty()) << "nothing until 03:00";
  std::vector<std::string> fired = s.run(1, 3, 0, 7 * 60);
  EXPECT_EQ(TRAINING_STATE_PERIODIC, s.state);
  EXPECT_EQ(0, s.base_minute);
  EXPECT_EQ(every(0, 30, 1, 3, 7), fired);
}

TEST(TrainingScheduleTest, StartHourReArmsThePeriodAtTheMinuteItIsSeen) {
  schedule_run s;
  s.opts.training_start_hour = 3;
  s.opts.training_frequency_minutes = 20;
  s.state = TRAINING_STATE_PERIODIC;
  s.base_minute = 0;
  s.last_hour = 2;
  // The cycle was busy until 03:07: the start hour fires there and the period follows from :07.
  EXPECT_EQ((std::vector<std::string>{"d0 03:07", "d0 03:27", "d0 03:47"}), s.run(0, 3, 7, 53));
  EXPECT_EQ(7, s.base_minute);
}

TEST(TrainingScheduleTest, ClockCheckAndMissingArguments) {
  schedule_run s;
  s.state = TRAINING_STATE_FIRST_PENDING;
  EXPECT_EQ(-1, zunta_check_training_time(&s.last_hour, &s.base_minute, &s.opts, &s.state));
  EXPECT_GE(s.last_hour, 0) << "the hour is read from the local time";
  EXPECT_LE(s.last_hour, 23);
  EXPECT_EQ(-1, zunta_training_time_decision(0, 0, &s.last_hour, &s.base_minute, nullptr, &s.state));
}

}  // namespace

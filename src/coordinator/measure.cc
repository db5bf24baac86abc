// The bitrate measurement mode: pair after pair, start a measurement on both ends, let it run for
// the interval, read both results into record 0 and print one row. Patterns are never touched.
#include "coordinator/measure.h"

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "training/training.h"

namespace {

constexpr int64_t MICROSECONDS_PER_SECOND = 1000000;
constexpr int32_t HEADER_EVERY_ROWS = 10;

void pause_interval(int32_t interval) {
  zunta_pause_us(static_cast<int64_t>(interval) * MICROSECONDS_PER_SECOND);
}

// A row only when both ends report a bitrate above zero.
void print_row(const mesh_pair* mp, int32_t row_counter) {
  if (row_counter % HEADER_EVERY_ROWS == 0) {
    ZLOG(COMP_CORE, LVL_U, "  i, mac_L, antenna-index_L,  bitrate_L, mac_R, antenna-index_R,  bitrate_R\n");
  }
  if (mp->txcs == nullptr) return;
  const txcs_record& r = mp->txcs->rounds[0];
  if (!(r.left_avg_bitrate_ma > 0.0f && r.right_avg_bitrate_ma > 0.0f)) return;
  ZLOG(COMP_CORE, LVL_U, "  -, %17s, 0x%d, %5.0f Mbps, %17s, 0x%d, %5.0f Mbps \n", mp->left_mac,
       r.left_pattern, r.left_avg_bitrate_ma / 1000.0f, mp->right_mac, r.right_pattern,
       r.right_avg_bitrate_ma / 1000.0f);
}

}  // namespace

void zunta_mp_measure_pass(struct coordinator* coordinator, int32_t interval, int32_t* row_counter) {
  if (coordinator == nullptr || row_counter == nullptr) {
    ZLOG_AS("zunta_mp_measure", COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    pause_interval(interval);
    return;
  }
  // With no mesh pair there is nothing to wait on; the pass still takes one interval so the mode
  // does not spin on the processor.
  if (sa_list_empty(&coordinator->mesh_pair_list)) {
    pause_interval(interval);
    return;
  }
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    zunta_start_dump(command, mp->left_ip, mp->right_mac);
    zunta_start_dump(command, mp->right_ip, mp->left_mac);
    if (zunta_start_training(command, mp->left_ip, mp->right_ip) != 0) {
      ZLOG_AS("zunta_mp_measure", COMP_TR, LVL_E, "Error while start training\n");
    }
    if (zunta_start_training(command, mp->right_ip, mp->left_ip) != 0) {
      ZLOG_AS("zunta_mp_measure", COMP_TR, LVL_E, "Error while start training\n");
    }
    pause_interval(interval);
    mp->txcs_count = 0;  // every measurement goes to record 0
    if (zunta_stop_training(command, mp, mp->right_mac, mp->left_mac, mp->left_ip) != 0) {
      ZLOG_AS("zunta_mp_measure", COMP_TR, LVL_E, "Error while stop training\n");
    }
    if (zunta_stop_training(command, mp, mp->left_mac, mp->right_mac, mp->right_ip) != 0) {
      ZLOG_AS("zunta_mp_measure", COMP_TR, LVL_E, "Error while stop training\n");
    }
    print_row(mp, *row_counter);
    ++*row_counter;  // counts visits, printed or not
  }
}

void zunta_mp_measure(struct coordinator* coordinator, int32_t interval) {
  if (interval <= 0) {
    ZLOG(COMP_CORE, LVL_W, "Invalid measurement interval %d sec. Set to default (%d sec)\n", interval,
         MEASURE_DEFAULT_INTERVAL_S);
    interval = MEASURE_DEFAULT_INTERVAL_S;
  }
  int32_t row_counter = 0;
  for (;;)
    zunta_mp_measure_pass(coordinator, interval, &row_counter);
}

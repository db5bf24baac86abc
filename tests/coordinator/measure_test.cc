// What the measurement scenario cannot show: a pair without a bitrate at both ends prints no row
// but counts as a visit, and a pass over no pair returns.
#include "coordinator/measure.h"

#include <gtest/gtest.h>

#include <string>

#include "coordinator/coordinator.h"
#include "meshpair/meshpair.h"
#include "support/capture_stdout.h"

// The pair's ends have no address: every command fails and the record keeps what it holds, one
// end at zero.
TEST(MeasureTest, PairWithoutBothBitratesCountsWithoutARowAndNoPairReturns) {
  struct coordinator coord = {};
  INIT_SA_LIST_HEAD(&coord.mesh_pair_list);
  txcs_block block = {};
  block.rounds[0].right_avg_bitrate_ma = 35400.0f;
  mesh_pair mp = {};
  mp.txcs = &block;
  sa_list_add(&mp.list, &coord.mesh_pair_list);
  int32_t visits = 1;  // no header either
  capture_stdout out;
  zunta_mp_measure_pass(&coord, 1, &visits);
  INIT_SA_LIST_HEAD(&coord.mesh_pair_list);
  zunta_mp_measure_pass(&coord, 1, &visits);
  EXPECT_EQ(2, visits);
  EXPECT_EQ(std::string::npos, out.text().find("Mbps"));
}

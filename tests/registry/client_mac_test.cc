// Client MAC sharing where the scenarios do not reach: malformed and over-long client lines, and an
// optimisation command that fails.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "registry/ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

TEST(ClientMacTest, OnlyWholeClientLinesCountAndAFailedOptimisationStopsTheSharing) {
  node_tables c = {};
  INIT_SA_LIST_HEAD(&c.ath_list);
  INIT_SA_LIST_HEAD(&c.module_client_list);
  ath node = {};
  char response[ANSWER_SIZE] =
      "aa:bb:cc:dd:ee:01,x,y\n"
      ",aa:bb:cc:dd:ee:02\n"
      "AA:BB:CC:DD:EE:03\n"       // case kept
      "aa:bb:cc:dd:ee:04x,1\n"    // longer than a MAC: skipped, not cut into one
      "aa:bb:cc:dd:ee:4\n"        // shorter
      "\x1b[1m:bb:cc:dd:ee:05\n"  // no MAC: it would reach the log as it came
      "aa:bb:cc:dd:ee:06";        // no line feed: not a line
  EXPECT_EQ(0, zunta_save_client_macs(&c, response, &node));
  std::string clients;
  sa_list_for_each_entry(m, &c.module_client_list, module_client, list) clients += m->mac + std::string(" ");
  EXPECT_EQ("AA:BB:CC:DD:EE:03 aa:bb:cc:dd:ee:01 ", clients);

  // 127.0.4.46 is served first; no agent listens there, so 127.0.4.45 hears nothing.
  fake_agent later("127.0.4.45", test_agent_port(), {{"ack"}});
  ASSERT_TRUE(later.running());
  char buffer[COMMAND_SIZE];
  ASSERT_EQ(0, zunta_ath_add(&c, buffer, "127.0.4.45", "aa:bb:cc:dd:ee:45", 0, 1));
  ASSERT_EQ(0, zunta_ath_add(&c, buffer, "127.0.4.46", "aa:bb:cc:dd:ee:46", 0, 1));
  sa_list_for_each_entry(a, &c.ath_list, ath, list) a->is_mesh_node = 1;
  EXPECT_EQ(-1, zunta_share_ath_mac(&c, buffer));
  later.stop();
  EXPECT_TRUE(later.commands().empty());
  sa_list_for_each_entry_safe(a, &c.ath_list, ath, list) std::free(a);
  sa_list_for_each_entry_safe(m, &c.module_client_list, module_client, list) std::free(m);
}

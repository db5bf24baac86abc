// Command 1: which answer lines name a neighbour of the node's ath (front to back: last line first).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "registry/ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

TEST(MeshListTest, OnlyCompleteLinesOfARadioNameNeighbours) {
  fake_agent agent("127.0.3.100", test_agent_port(),
                   {{"AA:BB:CC:DD:EE:0A,1,2\n"       // case kept
                     "aa:bb:cc:dd:ee:02,-1,0\n"      // radio -1: ignored
                     "aa:bb:cc:dd:ee:03,2,0,more\n"  // later fields ignored
                     "aa:bb:cc:dd:ee:01x,1,2\n"      // over-long MAC
                     "aa:bb:cc:dd:ee:0g,1,2\n"       // not hexadecimal
                     "\r\x1b[1m:cc:dd:ee:09,1,2\n"   // control characters are no MAC
                     "aa:bb:cc:dd:ee:04,2\n"         // missing field
                     "aa:bb:cc:dd:ee:05,2,1",        // no line feed
                     "ack"}});
  ASSERT_TRUE(agent.running());
  ath node = {};
  INIT_SA_LIST_HEAD(&node.neighbours);
  zunta_copy_text(node.ip, "127.0.3.100");
  char buffer[COMMAND_SIZE];
  EXPECT_EQ(0, zunta_get_mesh_list(buffer, &node));
  std::string seen;
  sa_list_for_each_entry_safe(n, &node.neighbours, neighbour, list) {
    seen += n->mac + (" " + std::to_string(n->radioidx)) + " " + std::to_string(n->pattern) + ", ";
    std::free(n);
  }
  EXPECT_EQ("aa:bb:cc:dd:ee:03 2 0, AA:BB:CC:DD:EE:0A 1 2, ", seen);
  EXPECT_EQ(2, node.neighbour_count);
}

TEST(MeshListTest, NumbersOutsideThirtyTwoBitsMakeTheLineInvalid) {
  char answer[] =
      "aa:bb:cc:dd:ee:01,4294967298,2\n"  // scanf's %d would have made it radio 2
      "aa:bb:cc:dd:ee:02,2,-2147483649\n"
      "aa:bb:cc:dd:ee:03,2,-2147483648\n";  // the smallest that fits
  ath node = {};
  INIT_SA_LIST_HEAD(&node.neighbours);
  EXPECT_EQ(0, zunta_parse_mesh_list(&node, answer));
  ASSERT_EQ(1, node.neighbour_count);
  neighbour* n = sa_list_entry(node.neighbours.next, neighbour, list);
  EXPECT_STREQ("aa:bb:cc:dd:ee:03", n->mac);
  EXPECT_EQ(INT32_MIN, n->pattern);
  std::free(n);
}

// The simulator's topology statements, the generator and the radio model, without sockets.
#include "meshsim/topology.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "meshsim/agent.h"
#include "meshsim/generate.h"
#include "meshsim/radio.h"

namespace meshsim {
namespace {

constexpr char TWO_NODES[] =
    "node a 127.0.7.1 0a:00:00:00:00:01\n"
    "node b 127.0.7.2 0a:00:00:00:00:02\n";

topology load(const std::string& text) {
  topology topo;
  std::string error;
  EXPECT_EQ(0, load_topology(topo, text, &error)) << error;
  return topo;
}

TEST(TopologyTest, BadStatementsAreRefusedWithTheirLineNumber) {
  const struct {
    const char* line;
    const char* why;
  } cases[] = {
      {"node c 10.0.0.3 0a:00:00:00:00:03", "127"},
      {"node c 127.0.7.255 0a:00:00:00:00:03", "127"},
      {"node c 127.0.7.3 0a:00:00:00:00", "MAC"},
      {"node c 127.0.7.1 0a:00:00:00:00:03", "already"},
      {"node c 127.0.7.3 0A:00:00:00:00:01", "already"},
      {"table a c 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", "unknown peer"},
      {"table a b 1 2 3", "usage"},
      {"table a b 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 -16", "bad bitrate"},
      {"mesh a a 1000", "unknown peer"},
      {"gains a 1 2 3", "usage"},
      {"fault a nack", "needs a number"},
      {"fault a silent on=12", "command list"},
      {"fault a melt", "unknown fault"},
      {"client z 0a:00:00:00:00:09", "unknown node"},
      {"teleport a b", "unknown statement"},
      {"noise 101", "percentage"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    topology topo;
    std::string error;
    EXPECT_EQ(-1, load_topology(topo, std::string(TWO_NODES) + c.line + "\n", &error));
    EXPECT_NE(std::string::npos, error.find("line 3: ")) << error;
    EXPECT_NE(std::string::npos, error.find(c.why)) << error;
  }
}

TEST(TopologyTest, DeletingANodeRemovesItFromTheOtherNodes) {
  topology topo =
      load(std::string(TWO_NODES) + "node c 127.0.7.3 0a:00:00:00:00:03\nmesh a b 1000\nmesh a c 1000\n");
  ASSERT_EQ(2u, topo.find("a")->neighbours.size());
  std::string error;
  ASSERT_EQ(0, apply_statement(topo, "del node b", &error)) << error;
  EXPECT_EQ(nullptr, topo.find("b"));
  ASSERT_EQ(1u, topo.find("a")->neighbours.size());
  EXPECT_EQ("0a:00:00:00:00:03", topo.find("a")->neighbours[0].mac);
  ASSERT_EQ(1u, topo.find("a")->links.size());
  ASSERT_EQ(0, apply_statement(topo, "del mesh c a", &error)) << error;
  EXPECT_TRUE(topo.find("a")->neighbours.empty());
  EXPECT_TRUE(topo.find("c")->links.empty());
}

TEST(TopologyTest, RelocationMovesEveryNodeIntoTheGivenRange) {
  std::string out;
  ASSERT_EQ(0, relocate_topology("# node x\nnode a 127.0.60.1 0a:00:00:00:00:01 1 0\nnode b 127.9.9.4 "
                                 "0a:00:00:00:00:02\n",
                                 "127.0.7", &out));
  EXPECT_EQ("# node x\nnode a 127.0.7.1 0a:00:00:00:00:01 1 0\nnode b 127.0.7.4 0a:00:00:00:00:02\n", out);
  EXPECT_EQ(-1, relocate_topology(TWO_NODES, "10.0.0", &out));
}

TEST(GeneratorTest, LargeMeshIsReproducibleSpansSubnetsAndMakesEveryNodeAMeshNode) {
  std::string text, again, other, error;
  ASSERT_EQ(0, generate_topology(260, 5, "127.0.8", &text, &error)) << error;
  ASSERT_EQ(0, generate_topology(260, 5, "127.0.8", &again, &error));
  ASSERT_EQ(0, generate_topology(260, 6, "127.0.8", &other, &error));
  EXPECT_EQ(text, again);
  EXPECT_NE(text, other);

  topology topo = load(text);
  ASSERT_EQ(260u, topo.nodes.size());
  EXPECT_EQ("127.0.8.254", topo.nodes[253].ip);
  EXPECT_EQ("127.0.9.1", topo.nodes[254].ip);
  std::set<std::string> reported;
  for (const node& n : topo.nodes) {
    for (const std::string& c : n.clients)
      reported.insert(c);
  }
  for (const node& n : topo.nodes) {
    SCOPED_TRACE(n.name);
    EXPECT_EQ(1u, reported.count(n.mac));
    bool mutual = false;
    for (const neighbour_entry& e : n.neighbours) {
      for (const neighbour_entry& back : topo.find_by_mac(e.mac)->neighbours)
        mutual |= back.mac == n.mac;
    }
    EXPECT_TRUE(mutual);
  }
  EXPECT_EQ(-1, generate_topology(300, 1, "127.0.255", &text, &error));
  EXPECT_EQ(-1, generate_topology(4, 1, "10.0.0", &text, &error));
}

TEST(RadioModelTest, TableRowIsOwnPatternAndColumnThePeersTransmitOrReceivePattern) {
  topology topo = load(std::string(TWO_NODES) +
                       "table a b 0 1 2 3 10 11 12 13 20 21 22 23 30 31 32 33\n"
                       "table b a 100 101 102 103 110 111 112 113 120 121 122 123 130 131 132 133\n");
  node& a = *topo.find("a");
  node& b = *topo.find("b");
  uint64_t rng = 1;
  EXPECT_EQ(33, measure(topo, a, b, a.links[0], &rng).avg_bitrate_ma);  // both on the default pattern 3
  set_tx_pattern(a, b.mac, 1);
  set_tx_pattern(b, "0A:00:00:00:00:01", 2);  // letter case of the MAC does not matter
  measurement m = measure(topo, a, b, a.links[0], &rng);
  EXPECT_EQ(12, m.avg_bitrate_ma);
  EXPECT_EQ(121, model_bitrate(topo, b, a, b.links[0]));
  b.rx_pattern = 0;  // a receive pattern overrides b's pattern towards a
  EXPECT_EQ(10, model_bitrate(topo, a, b, a.links[0]));

  // The exponential average starts at the value, then lags behind it.
  EXPECT_GT(m.avg_bitrate, 12);
  EXPECT_LT(m.avg_bitrate, 33);
  EXPECT_EQ(m.avg_bitrate_ma * MEASURE_SECONDS / FRAME_KBIT, m.nframes);
  EXPECT_LE(m.nfeedback, m.nframes);
}

TEST(RadioModelTest, GainModelAndNoiseAreFixedBySeed) {
  auto figures = [](const std::string& extra, uint64_t rng) {
    topology topo =
        load(std::string(TWO_NODES) + "gains a 0 3 -3 1\ngains b 2 0 0 -2\nlink a b 300000\n" + extra);
    node& a = *topo.find("a");
    node& b = *topo.find("b");
    std::vector<int> out;
    for (int p = 0; p < PATTERN_COUNT * PATTERN_COUNT; ++p) {
      set_tx_pattern(a, b.mac, p % PATTERN_COUNT);
      set_tx_pattern(b, a.mac, p / PATTERN_COUNT);
      out.push_back(measure(topo, a, b, a.links[0], &rng).avg_bitrate_ma);
    }
    return out;
  };
  std::vector<int> exact = figures("", 1);
  EXPECT_EQ(exact, figures("", 99));  // without noise the generator is not used
  EXPECT_NE(exact, figures("seed 2\n", 1));
  std::vector<int> noisy = figures("noise 10\n", 7);
  EXPECT_EQ(noisy, figures("noise 10\n", 7));
  EXPECT_NE(exact, noisy);
  for (std::size_t i = 0; i < exact.size(); ++i) {
    EXPECT_GE(noisy[i], exact[i] * 0.9 - 1);
    EXPECT_LE(noisy[i], exact[i] * 1.1 + 1);
  }
}

TEST(CommandLineTest, OnlyTwoIntegersAndTwoWordsParse) {
  command_line c;
  ASSERT_TRUE(parse_command_line("2,-1,1.8.0.3 0a:00:00:00:00:02", &c));
  EXPECT_EQ(2, c.index);
  EXPECT_EQ(-1, c.value);
  EXPECT_EQ("1.8.0.3", c.arg1);
  EXPECT_EQ("0a:00:00:00:00:02", c.arg2);
  for (const char* bad : {"", "9,-1,127.0.0.1", "9,-1,127.0.0.1 ", "9,-1, x", "9;-1,a b", "9,,a b",
                          "x,-1,a b", "9,-1,a b c", "99999999999,-1,a b", "9,-1,a b\r"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(parse_command_line(bad, &c));
  }
}

}  // namespace
}  // namespace meshsim

// From discovery to mesh pairs, observed from the node agents' side: the commands the daemon sends
// while it registers the nodes and derives the pairs, and what options -0 and -2 do with them.
#include <gmock/gmock.h>

#include "e2e/e2e_fixture.h"

namespace {

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

constexpr char M1[] = "0a:5a:00:00:00:01";
constexpr char M2[] = "0a:5a:00:00:00:02";
constexpr char M3[] = "0a:5a:00:00:00:03";
constexpr char ZERO[] = "00:00:00:00:00:00";

// Three mesh nodes and x, which nobody reports as a client. m1-m2 and m2-m3 list each other,
// m1 lists m3 alone, and m1-x list each other although x is no mesh node.
constexpr char THREE_MESH_NODES[] = R"(
node m1 127.0.60.1 0a:5a:00:00:00:01
node m2 127.0.60.2 0a:5a:00:00:00:02
node m3 127.0.60.3 0a:5a:00:00:00:03
node x 127.0.60.4 0a:5a:00:00:00:04
client m1 0a:5a:00:00:00:02
client m1 0a:5a:00:00:00:03
client m2 0a:5a:00:00:00:01,-40,wlan0
client m3 0a:5a:00:00:00:01
client x 3c:22:fb:10:20:30
mesh m1 m2 400000
mesh m2 m3 300000
neighbour m1 m3
neighbour m1 x
neighbour x m1
)";

std::string cmd(int index, int value, const std::string& arg1, const std::string& arg2) {
  return std::to_string(index) + "," + std::to_string(value) + "," + arg1 + " " + arg2;
}

class MeshPairsScenario : public MeshScenario {
 protected:
  // What every discovery of this mesh sends: 9 to each node as it is registered, the MACs of the
  // other mesh nodes then the optimisation start to each mesh node (newest registered first), and
  // 1 to every node.
  std::vector<seen_command> definition() const {
    std::vector<seen_command> expected;
    for (const char* node : {"m1", "m2", "m3", "x"})
      expected.push_back({node, cmd(9, -1, "127.0.0.1", ZERO)});
    const std::pair<const char*, const char*> mesh[] = {{"m3", M3}, {"m2", M2}, {"m1", M1}};
    for (const auto& [node, mac] : mesh) {
      for (const auto& [other, other_mac] : mesh) {
        if (other != node) expected.push_back({node, cmd(0, -1, "127.0.0.1", other_mac)});
      }
      expected.push_back({node, cmd(6, -1, "127.0.0.1", mac)});
    }
    for (const char* node : {"x", "m3", "m2", "m1"})
      expected.push_back({node, cmd(1, -1, "127.0.0.1", ZERO)});
    return expected;
  }
};

TEST_F(MeshPairsScenario, DefaultPatternsGoToBothEndsOfEveryMutualPair) {
  start_mesh(1, THREE_MESH_NODES);
  start_daemon({"-0"});
  ASSERT_EQ(0, daemon_->wait_exit(E2E_WAIT_MS)) << daemon_->out();
  EXPECT_THAT(daemon_->out(), testing::EndsWith("Exit\n"));
  std::vector<seen_command> expected = definition();
  // Pairs are keyed smaller MAC first; the newest pair comes first and its left end first.
  std::vector<seen_command> patterns = {{"m2", cmd(2, 3, "127.0.0.1", M3)},
                                        {"m3", cmd(2, 3, "127.0.0.1", M2)},
                                        {"m1", cmd(2, 3, "127.0.0.1", M2)},
                                        {"m2", cmd(2, 3, "127.0.0.1", M1)}};
  expected.insert(expected.end(), patterns.begin(), patterns.end());
  EXPECT_THAT(commands(), ElementsAreArray(expected));
}

TEST_F(MeshPairsScenario, ManualPatternsGoLeftAndRightThenDumpsStart) {
  start_mesh(2, THREE_MESH_NODES);
  start_daemon({"-2", "1", "2"});
  ASSERT_EQ(0, daemon_->wait_exit(E2E_WAIT_MS)) << daemon_->out();
  EXPECT_THAT(daemon_->out(),
              HasSubstr("zunta-coord: Smart antenna disabled. Manual Pattern set by argument, "
                        "1-2\nExit\n"));
  std::vector<seen_command> all = commands();
  std::vector<seen_command> tail(all.begin() + static_cast<long>(definition().size()), all.end());
  EXPECT_THAT(tail, ElementsAreArray(std::vector<seen_command>{
                        {"m2", cmd(2, 1, "127.0.0.1", M3)},
                        {"m3", cmd(2, 2, "127.0.0.1", M2)},
                        {"m2", cmd(4, -1, "127.0.0.1", M3)},
                        {"m3", cmd(4, -1, "127.0.0.1", M2)},
                        {"m1", cmd(2, 1, "127.0.0.1", M2)},
                        {"m2", cmd(2, 2, "127.0.0.1", M1)},
                        {"m1", cmd(4, -1, "127.0.0.1", M2)},
                        {"m2", cmd(4, -1, "127.0.0.1", M1)},
                    }));
}

}  // namespace

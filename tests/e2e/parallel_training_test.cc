// Training in lock-step groups end to end: the same mesh trained one pair at a time and with
// parallel_training=true, each against its own simulator at the same time, must end with the same
// commands per pair, tables, patterns and status file; measurements that overlap in time never
// belong to pairs within two hops; and a node that stops answering costs only its own pair.
#include <gmock/gmock.h>

#include <map>
#include <sstream>

#include "e2e/e2e_fixture.h"
#include "meshsim/generate.h"
#include "meshsim/interference.h"

namespace {

using ::testing::HasSubstr;

constexpr int RUN_WAIT_MS = 600000;  // one pair at a time on 16 nodes is long; nothing is timed

// One daemon run (zunta-coord -1) against its own simulator on 127.1.<range>.x.
class pair_run : public mesh_run {
 public:
  // Time scale 0.034 keeps the agents' 3-s time-out at 100 ms and the round pause at 204 ms.
  void start(int range, const std::string& topology, bool parallel, const char* time_scale = "0.034") {
    start_mesh(range, topology, meshsim::DEFAULT_MARKER_GAP_MS, parallel ? "parallel_training=true\n" : "");
    start_daemon({"-1"}, time_scale);
  }

  // The text with this run's addresses 127.1.<range>.x written 127.1.N.x, to compare runs.
  std::string normal(std::string text) const {
    const std::string mine = "127.1." + std::to_string(range_) + ".";
    for (auto at = text.find(mine); at != std::string::npos; at = text.find(mine, at))
      text.replace(at, mine.size(), "127.1.N.");
    return text;
  }

  // The status file without its clock readings.
  std::string status() const {
    std::istringstream in(read_file(snapshot()));
    std::string out;
    for (std::string line; std::getline(in, line);) {
      if (line.find("\"systime\"") == std::string::npos &&
          line.find("\"last training\"") == std::string::npos)
        out += line + "\n";
    }
    return normal(out);
  }

  // Every training command, by pair ("<node>><peer>" of the receiving node, names): commands 2 with
  // a fallback and 4 name the peer's MAC, 8 its IP, and a command 5 belongs to the last peer its
  // node was started towards.
  std::map<std::string, std::vector<std::string>> commands_by_pair() const {
    std::map<std::string, std::string> name_of;  // MAC or IP -> node name
    for (const meshsim::command_record& r : sim_.records()) {
      meshsim::node_view v;
      if (r.source == "agent" && sim_.node_state(r.node, &v)) name_of[v.mac] = name_of[v.ip] = v.name;
    }
    std::map<std::string, std::string> last_peer;
    std::map<std::string, std::vector<std::string>> out;
    for (const meshsim::command_record& r : sim_.records()) {
      if (r.source != "agent") continue;
      std::string peer;
      if ((r.index == 2 && r.arg1.rfind("1.8.0.", 0) == 0) || r.index == 4)
        peer = name_of[r.arg2];
      else if (r.index == 8)
        peer = name_of[r.arg1];
      else if (r.index == 5)
        peer = last_peer[r.node];
      else
        continue;
      last_peer[r.node] = peer;
      const std::string& a = std::min(r.node, peer);
      const std::string& b = std::max(r.node, peer);
      out[a + "-" + b].push_back(r.node + ": " + normal(r.line));
    }
    return out;
  }
};

// The training tables of the output, without their time stamps, sorted: a pair's table is the
// same whenever it is printed.
std::vector<std::string> tables(const std::string& out) {
  std::vector<std::string> found;
  for (auto at = out.find("TABLE_START_ID="); at != std::string::npos;
       at = out.find("TABLE_START_ID=", at + 1)) {
    const auto from = out.find('\n', at) + 1;
    found.push_back(out.substr(from, out.find("TABLE_END", from) - from));
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<std::string> lines_with(const std::string& out, const std::string& what) {
  std::vector<std::string> found;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.find(what) != std::string::npos) found.push_back(line);
  }
  return found;
}

// Trains `topology` both ways at once and compares everything the mesh and the operator see.
void expect_same_both_ways(int range, const std::string& topology, int nodes, int* groups) {
  pair_run one;
  pair_run grouped;
  one.start(range, topology, false);
  grouped.start(range + 1, topology, true);
  ASSERT_EQ(0, one.daemon_->wait_exit(RUN_WAIT_MS)) << one.daemon_->out();
  ASSERT_EQ(0, grouped.daemon_->wait_exit(RUN_WAIT_MS)) << grouped.daemon_->out();
  const std::string one_out = one.daemon_->out();
  const std::string grouped_out = grouped.daemon_->out();

  EXPECT_EQ(one.commands_by_pair(), grouped.commands_by_pair());
  EXPECT_EQ(tables(one_out), tables(grouped_out));
  EXPECT_EQ(one.status(), grouped.status());
  for (int k = 1; k <= nodes; ++k) {
    const std::string name = "n" + std::to_string(k);
    meshsim::node_view a, b;
    ASSERT_TRUE(one.sim_.node_state(name, &a) && grouped.sim_.node_state(name, &b)) << name;
    EXPECT_EQ(a.rx_pattern, b.rx_pattern) << name;
    // The order in which a node first heard of its peers differs; the patterns may not.
    auto patterns = [](const meshsim::node_view& v) {
      std::map<std::string, int> out;
      for (const meshsim::pattern_entry& e : v.tx_patterns)
        out[e.peer_mac] = e.pattern;
      return out;
    };
    EXPECT_EQ(patterns(a), patterns(b)) << name;
  }
  EXPECT_EQ(0, count_of(one_out, "Training group"));
  *groups = count_of(grouped_out, "zunta-coord: Training group ");

  // Measurements of different pairs that ran at overlapping times are more than two hops apart.
  const std::vector<meshsim::measure_window> windows = grouped.sim_.windows();
  int overlapping = 0;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    for (std::size_t j = i + 1; j < windows.size(); ++j) {
      const meshsim::measure_window& a = windows[i];
      const meshsim::measure_window& b = windows[j];
      const bool same_pair = std::minmax(a.node, a.peer) == std::minmax(b.node, b.peer);
      if (same_pair || !meshsim::windows_overlap(a, b)) continue;
      ++overlapping;
      EXPECT_FALSE(grouped.sim_.pairs_within_two_hops(a.node, a.peer, b.node, b.peer))
          << a.node << "-" << a.peer << " and " << b.node << "-" << b.peer;
    }
  }
  if (*groups < count_of(grouped_out, "zunta-coord: Training Mesh Pair: ")) {
    EXPECT_GT(overlapping, 0);
  }
}

TEST(ParallelTrainingScenario, GeneratedMeshTrainsAlikeInGroups) {
  std::string topology, error;
  ASSERT_EQ(0, meshsim::generate_topology(16, 1, "127.0.60", &topology, &error)) << error;
  int groups = 0;
  expect_same_both_ways(40, topology, 16, &groups);
  EXPECT_GT(groups, 1);
  EXPECT_LT(groups, 23);
}

TEST(ParallelTrainingScenario, FourNodeExampleTrainsAlikeInGroups) {
  // All four pairs of the example lie within two hops of each other: four groups of one.
  int groups = 0;
  expect_same_both_ways(
      42, read_file(std::string(ZUNTA_SOURCE_DIR) + "/tools/meshsim/examples/four-nodes.topo"), 4, &groups);
  EXPECT_EQ(4, groups);
}

// Two pairs far apart form one group; b-c-d hears nothing of a-e.
constexpr char TWO_PAIRS[] = R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
node c 127.0.60.3 0a:5a:00:00:00:03
node d 127.0.60.4 0a:5a:00:00:00:04
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
client c 0a:5a:00:00:00:04
client d 0a:5a:00:00:00:03
gains a 0 3 1 2
gains b 1 0 3 2
mesh a b 300000
mesh c d 300000
)";

TEST(ParallelTrainingScenario, NodeThatStopsAnsweringCostsOnlyItsOwnPair) {
  pair_run healthy;
  pair_run faulty;
  healthy.start(44, TWO_PAIRS, true, "0.05");
  faulty.start(45, TWO_PAIRS, true, "0.05");
  // d stops answering three rounds into the group.
  ASSERT_TRUE(faulty.sim_.wait_for(
      [](const std::vector<meshsim::command_record>& records) {
        return std::count_if(records.begin(), records.end(), [](const meshsim::command_record& r) {
                 return r.node == "d" && r.index == 5;
               }) >= 6;
      },
      RUN_WAIT_MS));
  std::string reply;
  ASSERT_EQ(0, faulty.sim_.control("fault d refuse", &reply)) << reply;
  ASSERT_EQ(0, healthy.daemon_->wait_exit(RUN_WAIT_MS)) << healthy.daemon_->out();
  ASSERT_EQ(0, faulty.daemon_->wait_exit(RUN_WAIT_MS)) << faulty.daemon_->out();

  const std::string out = faulty.daemon_->out();
  EXPECT_THAT(out, HasSubstr("zunta-coord: Training group 1 of 1: "));
  EXPECT_EQ(32, count_of(out, "zunta-coord:  - Training progress: "));
  EXPECT_EQ(2, count_of(out, " - Training progress: 100.00%\n"));
  EXPECT_THAT(out, HasSubstr("Connection Failed\n"));
  // a-b as without the fault: its commands, its table, its chosen patterns.
  EXPECT_EQ(healthy.commands_by_pair().at("a-b"), faulty.commands_by_pair().at("a-b"));
  const std::vector<std::string> ab_rows = lines_with(healthy.daemon_->out(), "0a:5a:00:00:00:01, 0x");
  ASSERT_EQ(16u, ab_rows.size());
  EXPECT_EQ(ab_rows, lines_with(out, "0a:5a:00:00:00:01, 0x"));
  const std::string ab_set =
      lines_with(healthy.daemon_->out(), "Pattern Set for Mesh Pair: 0a:5a:00:00:00:01").at(0);
  EXPECT_EQ(std::vector<std::string>{ab_set},
            lines_with(out, "Pattern Set for Mesh Pair: 0a:5a:00:00:00:01"));
}

}  // namespace

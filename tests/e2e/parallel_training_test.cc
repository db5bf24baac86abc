// Training several pairs at once, end to end, each run against its own simulator: pairs train as
// they would one at a time (commands, tables, patterns, status file) while no dead node, slow
// agent, shortage of descriptors or hostile discovery answer holds up the others, and pairs within
// two hops never measure at the same time.
#include <gmock/gmock.h>

#include <map>
#include <sstream>

#include "e2e/e2e_fixture.h"
#include "meshsim/interference.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr int RUN_WAIT_MS = 120000;  // generous: the machine may be loaded; nothing is timed

// One daemon run against its own simulator on 127.1.<range>.x.
class pair_run : public mesh_run {
 public:
  void start(int range, const std::string& topology, const std::string& conf, std::vector<std::string> args,
             double scale, std::vector<std::string> wrapper = {}) {
    scale_ = scale;
    start_mesh(range, topology, E2E_MARKER_GAP_MS, conf);
    start_daemon(std::move(args), scale, std::move(wrapper));
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

  // Every training command, by pair ("<node>-<peer>" names, in order): commands 2 with a fallback
  // and 4 name the peer's MAC, 8 its IP, and a command 5 belongs to the last peer its node was
  // started towards.
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
      out[std::min(r.node, peer) + "-" + std::max(r.node, peer)].push_back(r.node + ": " + normal(r.line));
    }
    return out;
  }

  // Agent records of one node with one command index.
  std::vector<meshsim::command_record> received(const std::string& node, int index) const {
    std::vector<meshsim::command_record> out;
    for (const meshsim::command_record& r : sim_.records()) {
      if (r.source == "agent" && r.node == node && r.index == index) out.push_back(r);
    }
    return out;
  }

  int64_t pause_ms() const { return static_cast<int64_t>(6000 * scale_); }
  int64_t time_out_ms() const { return static_cast<int64_t>(3000 * scale_); }

  double scale_ = 0.05;
};

// The training tables of the output, without their time stamps, sorted.
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

// Measurements of different pairs that overlapped in time are more than two hops apart.
void expect_no_neighbours_measured_together(const pair_run& run) {
  const std::vector<meshsim::measure_window> windows = run.sim_.windows();
  for (std::size_t i = 0; i < windows.size(); ++i) {
    for (std::size_t j = i + 1; j < windows.size(); ++j) {
      const meshsim::measure_window& a = windows[i];
      const meshsim::measure_window& b = windows[j];
      if (std::minmax(a.node, a.peer) == std::minmax(b.node, b.peer) || !meshsim::windows_overlap(a, b))
        continue;
      EXPECT_FALSE(run.sim_.pairs_within_two_hops(a.node, a.peer, b.node, b.peer))
          << a.node << "-" << a.peer << " and " << b.node << "-" << b.peer;
    }
  }
}

// a-b and c-d are within two hops (b hears c); e-f is far from both.
constexpr char THREE_PAIRS[] = R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
node c 127.0.60.3 0a:5a:00:00:00:03
node d 127.0.60.4 0a:5a:00:00:00:04
node e 127.0.60.5 0a:5a:00:00:00:05
node f 127.0.60.6 0a:5a:00:00:00:06
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
client c 0a:5a:00:00:00:04
client d 0a:5a:00:00:00:03
client e 0a:5a:00:00:00:06
client f 0a:5a:00:00:00:05
gains a 0 3 1 2
gains b 1 0 3 2
gains c 2 1 0 3
gains e 3 1 2 0
mesh a b 300000
mesh c d 280000
mesh e f 260000
neighbour b c
)";

// d's agent falls silent for training from the start. Its pair stops after one command's 21
// attempts; the others train as in a healthy run one pair at a time, with their measurements never
// stretched by d's time-outs; the topology check retrains c-d once d answers again.
TEST(ParallelTrainingScenario, ASilentNodeCostsItsOwnPairOnceAndTheOthersTrainAsAlone) {
  pair_run healthy;
  pair_run faulty;
  healthy.start(40, THREE_PAIRS, "", {"-1"}, e2e_time_scale());
  faulty.start(41, std::string(THREE_PAIRS) + "fault d silent on=2,4,5,8\n", "parallel_training=true\n",
               {"-e"}, e2e_time_scale());
  // The 21st attempt is held silent to its time-out, whatever the agent does from now on.
  ASSERT_TRUE(faulty.wait_commands("d", 2, 21));
  std::string reply;
  ASSERT_EQ(0, faulty.sim_.control("fault d none", &reply)) << reply;
  ASSERT_TRUE(faulty.wait_snapshot([](const std::string& text) {
    return text.find("\"key\": \"0a:5a:00:00:00:03-0a:5a:00:00:00:04\"") != std::string::npos;
  })) << faulty.daemon_->out();
  faulty.daemon_->terminate();
  ASSERT_EQ(0, healthy.daemon_->wait_exit(RUN_WAIT_MS)) << healthy.daemon_->out();
  const std::string out = faulty.daemon_->out();

  const int stops = count_of(out,
                             "zunta-coord: Training of mesh pair 0a:5a:00:00:00:03-0a:5a:00:00:00:04 "
                             "stopped: node 127.1.41.4 (0a:5a:00:00:00:04) not answering\n");
  EXPECT_GE(stops, 1);
  const auto training_patterns = faulty.received("d", 2);
  EXPECT_EQ(21 * stops + 16,
            std::count_if(training_patterns.begin(), training_patterns.end(),
                          [](const meshsim::command_record& r) { return r.arg1 != "127.0.0.1"; }));
  EXPECT_EQ(stops, count_of(out, "stopped: "));
  EXPECT_THAT(out, HasSubstr("zunta-coord: Mesh pair 0a:5a:00:00:00:05-0a:5a:00:00:00:06 starts training: "));

  const auto alone = healthy.commands_by_pair();
  const auto together = faulty.commands_by_pair();
  EXPECT_EQ(alone.at("a-b"), together.at("a-b"));
  EXPECT_EQ(alone.at("e-f"), together.at("e-f"));
  const std::vector<std::string>& cd = together.at("c-d");
  ASSERT_GE(cd.size(), alone.at("c-d").size());
  EXPECT_EQ(alone.at("c-d"), std::vector<std::string>(cd.end() - alone.at("c-d").size(), cd.end()));
  EXPECT_EQ(tables(healthy.daemon_->out()), tables(out));

  // A window runs from the node's first command 4 or 8 to its command 5: the pause and a few
  // exchanges, never one of d's time-outs.
  for (const meshsim::measure_window& w : faulty.sim_.windows()) {
    if (w.node == "c" || w.node == "d" || w.stop_ms < 0) continue;
    EXPECT_LT(w.stop_ms - w.start_ms, faulty.pause_ms() + faulty.time_out_ms()) << w.node << "-" << w.peer;
  }
  expect_no_neighbours_measured_together(faulty);
}

// Once c-d is trained, d stops answering training commands and g joins as its neighbour: d-g stops
// at d, and the pattern application that ends that pass sends d nothing, neither c-d's transmit
// pattern nor a receive pattern, although d would answer those.
constexpr char ONE_PAIR[] = R"(
node c 127.0.60.3 0a:5a:00:00:00:03
node d 127.0.60.4 0a:5a:00:00:00:04
client c 0a:5a:00:00:00:04
client d 0a:5a:00:00:00:03
mesh c d 300000
)";

TEST(ParallelTrainingScenario, TheNodeThatStoppedAPairIsSentNothingWhenThePassEnds) {
  pair_run run;
  run.start(48, ONE_PAIR, "parallel_training=true\n", {"-e"}, e2e_time_scale());
  ASSERT_TRUE(run.daemon_->wait_for_output("zunta-coord: Training ends\n", RUN_WAIT_MS))
      << run.daemon_->out();
  const std::size_t told = run.received("d", 10).size();
  ASSERT_EQ(1u, told);
  std::string reply;
  for (const std::string& line :
       {std::string("fault d silent on=2,4,5,8"), "node g " + run.ip(7) + " 0a:5a:00:00:00:07",
        std::string("client d 0a:5a:00:00:00:07"), std::string("client g 0a:5a:00:00:00:04"),
        std::string("mesh d g 300000")})
    ASSERT_EQ(0, run.sim_.control(line, &reply)) << line << ": " << reply;
  ASSERT_TRUE(run.daemon_->wait_until(
      [](const std::string& out) {
        return out.find("stopped: node 127.1.48.4") != std::string::npos &&
               count_of(out, "Training ends\n") >= 2;
      },
      RUN_WAIT_MS))
      << run.daemon_->out();
  run.daemon_->terminate();
  EXPECT_EQ(told, run.received("d", 10).size());
  EXPECT_TRUE(run.received("d", 11).empty());
}

// Thirteen pairs, none within two hops of another, all training at once.
std::string thirteen_pairs() {
  std::string topology;
  for (int k = 1; k <= 26; ++k) {
    char line[160];
    std::snprintf(line, sizeof line,
                  "node p%d 127.0.60.%d 0a:5a:00:00:00:%02x\nclient p%d 0a:5a:00:00:00:%02x\n", k, k, k, k,
                  k % 2 == 1 ? k + 1 : k - 1);
    topology += line;
    std::snprintf(line, sizeof line, "gains p%d %d %d %d %d\n", k, k % 4, (k + 1) % 4, (k + 3) % 4,
                  (k + 2) % 4);
    topology += line;
    if (k % 2 == 0) topology += "mesh p" + std::to_string(k - 1) + " p" + std::to_string(k) + " 300000\n";
  }
  return topology;
}

// With the open-file limit at 12, fewer exchanges than pairs can be open at once: the pairs wait
// for free slots, and the results are those of a run without the limit. Nothing is invented from
// failed sockets and the loop never spins.
TEST(ParallelTrainingScenario, MorePairsThanDescriptorsTrainAsWithoutTheLimit) {
  const std::string topology = thirteen_pairs();
  pair_run limited;
  pair_run free_run;
  const auto started = std::chrono::steady_clock::now();
  limited.start(43, topology, "parallel_training=true\n", {"-1"}, e2e_time_scale(),
                {"prlimit", "--nofile=12"});
  free_run.start(44, topology, "parallel_training=true\n", {"-1"}, e2e_time_scale());
  ASSERT_EQ(0, limited.daemon_->wait_exit(RUN_WAIT_MS)) << limited.daemon_->out();
  const auto wall_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started)
          .count();
  ASSERT_EQ(0, free_run.daemon_->wait_exit(RUN_WAIT_MS)) << free_run.daemon_->out();
  const std::string out = limited.daemon_->out();

  EXPECT_THAT(
      out,
      HasSubstr("zunta-coord: Parallel training: 13 pairs trained, 0 stopped, at most 13 at once, turns: 1, "
                "exchanges in flight at most 4\n"));
  EXPECT_THAT(out, Not(HasSubstr("ERROR")));
  EXPECT_EQ(free_run.commands_by_pair(), limited.commands_by_pair());
  EXPECT_EQ(tables(free_run.daemon_->out()), tables(out));
  EXPECT_EQ(free_run.status(), limited.status());
  EXPECT_LT(limited.daemon_->cpu_ms(), wall_ms / 2);
}

// x announces 64 interfaces of its own address and refuses every command; y announces a's MAC
// after a did. Once a-b and d-e are trained, b moves to another address and d-e goes away: the
// receive update that follows applies a-b's patterns at b's new address.
constexpr char HOSTILE[] = R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
node d 127.0.60.4 0a:5a:00:00:00:04
node e 127.0.60.5 0a:5a:00:00:00:05
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
client d 0a:5a:00:00:00:05
client e 0a:5a:00:00:00:04
mesh a b 300000
mesh d e 300000
node y 127.0.60.8 0a:5a:00:00:00:08
fault y claim_mac 0a:5a:00:00:00:01
node x 127.0.60.9 0a:5a:00:00:00:09
fault x eth_lines 64
fault x nack_always
)";

TEST(ParallelTrainingScenario, HostileAnswersCostOncePerDiscoveryAndAMovedNodeIsFollowed) {
  pair_run run;
  run.start(46, HOSTILE, "parallel_training=true\n", {"-e"}, e2e_time_scale());
  ASSERT_TRUE(run.wait_snapshot([](const std::string& text) { return count_of(text, "\"key\"") == 2; }))
      << run.daemon_->out();
  std::string reply;
  for (const std::string& line : {"node b " + run.ip(12) + " 0a:5a:00:00:00:02", std::string("del mesh d e")})
    ASSERT_EQ(0, run.sim_.control(line, &reply)) << line << ": " << reply;
  ASSERT_TRUE(run.sim_.wait_for(
      [&](const std::vector<meshsim::command_record>& records) {
        return std::any_of(records.begin(), records.end(), [&](const meshsim::command_record& r) {
          return r.node == "b" && r.index == 10 && r.ip == run.ip(12);
        });
      },
      RUN_WAIT_MS))
      << run.daemon_->out();
  run.daemon_->terminate();
  const std::string out = run.daemon_->out();

  EXPECT_THAT(out, HasSubstr("node 0a:5a:00:00:00:02 moved from 127.1.46.2 to 127.1.46.12\n"));
  EXPECT_THAT(run.status(), HasSubstr("\"ip\": \"127.1.N.12\""));
  EXPECT_THAT(out, Not(HasSubstr("Connection Failed")));  // nothing went to b's old address
  EXPECT_THAT(out, HasSubstr("ZUNTA:W:CORE: MAC 0a:5a:00:00:00:01 announced by 127.1.46.1 and by 127.1.46.8: "
                             "the answer of 127.1.46.8 is ignored\n"));
  const std::vector<meshsim::command_record> records = run.sim_.records();
  EXPECT_EQ(0, std::count_if(records.begin(), records.end(),
                             [](const meshsim::command_record& r) { return r.node == "y"; }));
  // x costs one command's 21 attempts per discovery, whatever it announces, and is never asked for
  // its neighbours, nor does any of its other interfaces cost a line.
  EXPECT_THAT(out, Not(HasSubstr("Error during get mesh list")));
  int discoveries = 0;
  int x_asked = 0;
  for (const meshsim::command_record& r : records) {
    if (r.source == "discovery") {
      if (discoveries++ > 0) {
        EXPECT_EQ(21, x_asked);
      }
      x_asked = 0;
    }
    if (r.node == "x") ++x_asked;
  }
  EXPECT_GE(discoveries, 2);
  EXPECT_LE(x_asked, 21);
  const int given_up = count_of(
      out, "Agent at 127.1.46.9 left command 9 unanswered: not asked again until the next discovery");
  EXPECT_GE(given_up, discoveries - 1);  // the last discovery may have been cut short
  EXPECT_LE(given_up, discoveries);
  expect_no_neighbours_measured_together(run);
}

// b's answers come a line at a time, each 450 ms (2.25 s at full time) after the previous send: the
// whole answer takes longer than twice the read time-out, yet each command goes through at once.
constexpr char SLOW_B[] = R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
client b 3c:22:fb:10:20:30,-48,wlan0
mesh a b 300000
neighbour b 0a:5a:00:00:00:09 -1
fault b trickle 450 on=9,1
)";

TEST(ParallelTrainingScenario, ASlowButCompleteAgentIsAskedOnce) {
  pair_run run;
  run.start(47, SLOW_B, "", {"-0"}, 0.2);
  ASSERT_EQ(0, run.daemon_->wait_exit(RUN_WAIT_MS)) << run.daemon_->out();
  EXPECT_EQ(1u, run.received("b", 9).size());
  EXPECT_EQ(1u, run.received("b", 1).size());
  ASSERT_EQ(1u, run.received("b", 2).size());
  EXPECT_EQ(3, run.received("b", 2)[0].value);
  EXPECT_THAT(run.daemon_->out(), Not(HasSubstr("ERROR")));
}

}  // namespace

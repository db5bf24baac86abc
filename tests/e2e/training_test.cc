// Training of mesh pairs end to end: the rounds as the agents see them, the chosen transmit and
// receive patterns, the status file, topology changes with -e, the measurement mode, and a node
// that stops answering in the middle of a training.
#include <gmock/gmock.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <regex>

#include "e2e/e2e_fixture.h"

namespace {

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

constexpr char A[] = "0a:5a:00:00:00:01";
constexpr char B[] = "0a:5a:00:00:00:02";
constexpr char C[] = "0a:5a:00:00:00:03";

// A table line of the directed link from->to: rate(from's pattern, to's pattern) in kbit/s.
std::string table(const char* from, const char* to, const std::function<int(int, int)>& rate) {
  std::string line = std::string("table ") + from + " " + to;
  for (int own = 0; own < 4; ++own) {
    for (int peer = 0; peer < 4; ++peer)
      line += " " + std::to_string(rate(own, peer));
  }
  return line + "\n";
}

// Round r of a pair measures left pattern r % 4 with right pattern r / 4. The reports grow with
// the round, except for one round with a bump that makes it the best: (1,2) = round 9 for a-b,
// (3,0) = round 3 for b-c.
int plain(int left, int right) {
  return 100000 + 1000 * (left + 4 * right);
}
int rate_ab(int left, int right) {
  return plain(left, right) + (left == 1 && right == 2 ? 100000 : 0);
}
int rate_bc(int left, int right) {
  return plain(left, right) + (left == 3 && right == 0 ? 100000 : 0);
}

// The chain a - b - c: a and c hear only b.
std::string chain() {
  return std::string(R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
node c 127.0.60.3 0a:5a:00:00:00:03
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
client b 0a:5a:00:00:00:03
client c 0a:5a:00:00:00:02
neighbour a b
neighbour b a
neighbour b c
neighbour c b
)") + table("a", "b", rate_ab) +
         table("b", "a", [](int b, int a) { return plain(a, b); }) + table("b", "c", rate_bc) +
         table("c", "b", [](int c, int b) { return plain(b, c); });
}

std::string cmd(int index, int value, const std::string& arg1, const std::string& arg2) {
  return std::to_string(index) + "," + std::to_string(value) + "," + arg1 + " " + arg2;
}

class TrainingScenario : public MeshScenario {
 protected:
  // The 128 commands of one pair's training. Each round's fallback is the best round before it
  // (0,0 before any): the reports grow with the round, and nothing after the bump round beats it.
  std::vector<seen_command> rounds(const char* left, const char* lmac, int lhost, const char* right,
                                   const char* rmac, int rhost, int bump) const {
    std::vector<seen_command> out;
    for (int r = 0; r < 16; ++r) {
      const int l = r % 4, rr = r / 4, fallback = r == 0 ? 0 : std::min(r - 1, bump);
      out.push_back({left, cmd(2, l, "1.8.0." + std::to_string(fallback % 4), rmac)});
      out.push_back({right, cmd(2, rr, "1.8.0." + std::to_string(fallback / 4), lmac)});
      out.push_back({left, cmd(4, -1, "127.0.0.1", rmac)});
      out.push_back({right, cmd(4, -1, "127.0.0.1", lmac)});
      out.push_back({left, cmd(8, -1, ip(rhost), "00:00:00:00:00:00")});
      out.push_back({right, cmd(8, -1, ip(lhost), "00:00:00:00:00:00")});
      out.push_back({left, cmd(5, -1, "127.0.0.1", "00:00:00:00:00:00")});
      out.push_back({right, cmd(5, -1, "127.0.0.1", "00:00:00:00:00:00")});
    }
    return out;
  }

  std::string node_block(const char* mac, int host, int tx, int rx) const {
    char patterns[96];
    std::snprintf(patterns, sizeof patterns, "\"tx_pattern\": \"0x%x\",\n        \"rx_pattern\": \"0x%x\",\n",
                  static_cast<unsigned>(tx), static_cast<unsigned>(rx));
    return std::string("        \"mac\": \"") + mac + "\",\n        \"ip\": \"" + ip(host) + "\",\n        " +
           patterns;
  }
};

TEST_F(TrainingScenario, TrainOnceChoosesKnownPatternsAndPublishesThem) {
  start_mesh(10, chain());
  start_daemon({"-1"});
  ASSERT_EQ(0, daemon_->wait_exit(E2E_WAIT_MS)) << daemon_->out();

  // b-c is the newest pair and trains first. Then b, the only node with two neighbours, receives
  // on the pattern that scores best over both its pairs; a and c receive on their transmit pattern.
  std::vector<seen_command> expected = rounds("b", B, 2, "c", C, 3, 3);
  std::vector<seen_command> ab = rounds("a", A, 1, "b", B, 2, 9);
  expected.insert(expected.end(), ab.begin(), ab.end());
  std::vector<seen_command> after = {
      {"c", cmd(2, 0, "127.0.0.1", B)},  {"b", cmd(11, 2, "127.0.0.1", "00:00:00:00:00:00")},
      {"a", cmd(2, 1, "127.0.0.1", B)},  {"a", cmd(10, 1, "127.0.0.1", B)},
      {"b", cmd(10, 2, "127.0.0.1", A)}, {"b", cmd(10, 3, "127.0.0.1", C)},
      {"c", cmd(10, 0, "127.0.0.1", B)}};
  expected.insert(expected.end(), after.begin(), after.end());
  EXPECT_THAT(commands({2, 4, 5, 8, 10, 11}), ElementsAreArray(expected));

  std::string out = daemon_->out();
  EXPECT_EQ(32, count_of(out, "zunta-coord:  - Training progress: "));
  EXPECT_EQ(2, count_of(out, " - Training progress: 100.00%\n"));
  EXPECT_EQ(2, count_of(out, "zunta-coord: TABLE_END\n"));
  EXPECT_EQ(2, count_of(out, " Mbps *\n"));
  EXPECT_THAT(out,
              HasSubstr("zunta-coord:   9, 0a:5a:00:00:00:01, 0x1,   209 Mbps, 0a:5a:00:00:00:02, 0x2,   "
                        "109 Mbps *\n"));
  EXPECT_THAT(out,
              HasSubstr("zunta-coord:   3, 0a:5a:00:00:00:02, 0x3,   203 Mbps, 0a:5a:00:00:00:03, 0x0,   "
                        "103 Mbps *\n"));
  EXPECT_THAT(out,
              HasSubstr("zunta-coord: Pattern Set for Mesh Pair: 0a:5a:00:00:00:01 <-> 0a:5a:00:00:00:02: "
                        "0x1--0x2\nzunta-coord: Pattern Set for Mesh Pair: 0a:5a:00:00:00:02 <-> "
                        "0a:5a:00:00:00:03: 0x3--0x0\n"));
  EXPECT_THAT(out, testing::EndsWith("zunta-coord: Training ends\nExit\n"));

  std::string status = read_file(snapshot());
  EXPECT_THAT(status, HasSubstr(node_block(A, 1, 1, 1) +
                                "        \"fronthaul_pattern\": \"0x3\",\n       },\n"
                                "    \"right_node\": {\n" +
                                node_block(B, 2, 2, 2)));
  EXPECT_THAT(status, HasSubstr(node_block(B, 2, 3, 2) +
                                "        \"fronthaul_pattern\": \"0x3\",\n       },\n"
                                "    \"right_node\": {\n" +
                                node_block(C, 3, 0, 0)));
  EXPECT_EQ(sim_.rx_pattern("b"), 2);
  EXPECT_EQ(sim_.tx_pattern("b", C), 3);
}

TEST_F(TrainingScenario, TopologyChangesRetrainOnlyWhatIsNew) {
  start_mesh(11, chain());
  start_daemon({"-e"});
  ASSERT_TRUE(daemon_->wait_for_output("zunta-coord: Training ends\n", E2E_WAIT_MS)) << daemon_->out();
  ASSERT_TRUE(wait_snapshot([](const std::string& s) { return count_of(s, "\"key\"") == 2; }));

  // b-c disappears: only the receive selection and the transmit patterns of a-b are redone.
  sim_.clear_records();
  std::string reply;
  ASSERT_EQ(0, sim_.control("del mesh b c", &reply)) << reply;
  ASSERT_TRUE(wait_commands("a", 10, 1));
  ASSERT_TRUE(wait_commands("b", 10, 1));
  EXPECT_TRUE(commands({4, 5, 8}).empty());
  EXPECT_TRUE(wait_snapshot([](const std::string& s) { return count_of(s, "\"key\"") == 1; }));

  // b-c comes back (its link models before the neighbour lines that make it a pair): only b-c is
  // trained, and the patterns of both pairs are applied again.
  sim_.clear_records();
  for (std::string line :
       {table("b", "c", rate_bc), table("c", "b", [](int c, int b) { return plain(b, c); }),
        std::string("neighbour c b\n"), std::string("neighbour b c\n")}) {
    line.pop_back();
    ASSERT_EQ(0, sim_.control(line, &reply)) << line << ": " << reply;
  }
  ASSERT_TRUE(wait_commands("c", 10, 1));
  ASSERT_TRUE(wait_commands("a", 10, 1));
  std::vector<seen_command> trained = commands({4, 5, 8});
  EXPECT_EQ(96u, trained.size());
  for (const seen_command& c : trained)
    EXPECT_NE("a", c.node) << c;
  EXPECT_TRUE(wait_snapshot([](const std::string& s) { return count_of(s, "\"key\"") == 2; }));
  // The status file may be read before the daemon's output has been: wait for the line.
  EXPECT_TRUE(daemon_->wait_until(
      [](const std::string& out) {
        return count_of(out, "zunta-coord: Training triggered for new mesh pair\n") == 2;
      },
      E2E_WAIT_MS))
      << daemon_->out();
}

// Without -e the trained pairs outlive every registry rebuild: a node under a new address keeps
// its receive pattern and its pair follows it there, and a node that went away shows none.
TEST_F(TrainingScenario, RebuildsKeepReceivePatternsAndAVanishedNodeShowsNone) {
  start_mesh(14, chain());
  start_daemon({});
  ASSERT_TRUE(daemon_->wait_for_output("zunta-coord: Training ends\n", E2E_WAIT_MS)) << daemon_->out();
  std::string reply;
  ASSERT_EQ(0, sim_.control("node a " + ip(21) + " " + A, &reply)) << reply;
  // The next discovery registers a under its new address and fetches every node's neighbours;
  // the status files written after that show a's current record and address, found by its MAC.
  for (const char* node : {"a", "b", "c"})
    ASSERT_TRUE(wait_commands(node, 1, 2));
  std::remove(snapshot().c_str());
  ASSERT_TRUE(wait_snapshot([](const std::string& s) { return s.find("\"key\"") != std::string::npos; }));
  EXPECT_THAT(read_file(snapshot()), HasSubstr(node_block(A, 21, 1, 1)));
  ASSERT_EQ(0, sim_.control("del node c", &reply)) << reply;
  // The next discovery registers a and b only: c's end of b-c has no record any more.
  std::string gone = node_block(C, 3, 0, -1);
  ASSERT_TRUE(wait_snapshot([&](const std::string& s) { return s.find(gone) != std::string::npos; }));
  std::string status = read_file(snapshot());
  EXPECT_THAT(status, HasSubstr(node_block(A, 21, 1, 1)));
  EXPECT_THAT(status, HasSubstr(node_block(B, 2, 2, 2)));
  EXPECT_THAT(status, HasSubstr(node_block(B, 2, 3, 2)));
}

constexpr char TWO_NODES[] = R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
mesh a b 300000
)";

TEST_F(TrainingScenario, NodeThatStopsAnsweringDoesNotStopTheTraining) {
  start_mesh(13, TWO_NODES);
  start_daemon({"-1"});
  ASSERT_TRUE(sim_.wait_for(
      [](const std::vector<meshsim::command_record>& records) {
        for (const auto& r : records) {
          if (r.index == 2 && r.arg1.rfind("1.8.0.", 0) == 0) return true;
        }
        return false;
      },
      E2E_WAIT_MS));
  std::string reply;
  ASSERT_EQ(0, sim_.control("fault b refuse", &reply)) << reply;
  ASSERT_EQ(0, daemon_->wait_exit(E2E_WAIT_MS)) << daemon_->out();
  std::string out = daemon_->out();
  EXPECT_EQ(16, count_of(out, "zunta-coord:  - Training progress: "));
  EXPECT_THAT(out, HasSubstr(" - Training progress: 100.00%\n"));
  EXPECT_THAT(out, HasSubstr("Connection Failed\n"));
  EXPECT_THAT(out, testing::EndsWith("zunta-coord: Training ends\nExit\n"));
}

// The configuration is read again every cycle: a broadcast address edited while the daemon runs
// is where the next request goes. The daemon's time zone makes its clock enter a new hour five
// discovery periods after the start (the first training needs about one), and that is the
// configured start hour: every pair is trained again.
TEST_F(TrainingScenario, AnEditedBroadcastAddressAndTheStartHourTakeEffectWhileRunning) {
  const time_t HOUR_IN_S = static_cast<time_t>(300 * e2e_time_scale());  // fifteen seconds by default
  const time_t started = std::time(nullptr);
  const time_t east = (3600 - (started + HOUR_IN_S) % 3600) % 3600;
  const int hour = static_cast<int>((started + HOUR_IN_S + east) / 3600 % 24);
  char tz[32];
  std::snprintf(tz, sizeof tz, "TZ=ZUT-0:%02d:%02d", static_cast<int>(east / 60),
                static_cast<int>(east % 60));
  start_mesh(15, TWO_NODES);
  const std::string conf = dir_ + "/zunta.conf";
  const std::string schedule = "training_start_hour=" + std::to_string(hour) + "\n";
  const std::string answered = read_file(conf) + schedule;
  write_file(conf, "root=true\nbroadcast_address=" + ip(254) + "\nbroadcast_port=25115\n" + schedule);
  start_daemon({}, e2e_time_scale(), {"env", tz});
  ASSERT_TRUE(wait_snapshot([](const std::string& s) { return !s.empty(); }));  // start-up has read it
  write_file(conf + ".new", answered);
  ASSERT_EQ(0, std::rename((conf + ".new").c_str(), conf.c_str()));
  ASSERT_TRUE(daemon_->wait_for_output("zunta-coord: Training triggered for new mesh pair\n", E2E_WAIT_MS))
      << daemon_->out();
  ASSERT_LT(std::time(nullptr), started + HOUR_IN_S) << "the first training must begin before the hour";
  EXPECT_TRUE(daemon_->wait_until(
      [](const std::string& out) {
        return count_of(out, "zunta-coord: Training triggered for new mesh pair\n") == 2;
      },
      E2E_WAIT_MS))
      << daemon_->out();
}

}  // namespace

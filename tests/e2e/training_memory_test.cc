// The training memory end to end: nothing read or written without the key; a daemon killed after a
// pass applies the remembered patterns at once when it comes back and trains only the pair added
// while it was down; a damaged file costs one warning and a full pass.
#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <set>

#include "e2e/e2e_fixture.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr char B[] = "0a:5a:00:00:00:02";
constexpr char C[] = "0a:5a:00:00:00:03";
constexpr char D[] = "0a:5a:00:00:00:04";

// Each node prefers one pattern, so the chosen patterns are no accident of a zero-filled block.
constexpr char TWO_NODES[] = R"(
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
gains a 0 6 0 0
gains b 0 0 6 0
mesh a b 300000
)";

class TrainingMemoryScenario : public MeshScenario {
 protected:
  std::string memory() const { return dir_ + "/training"; }

  // Replaces the configuration by rename, as the daemon re-reads it every cycle.
  void set_conf(const std::string& extra) {
    write_file(dir_ + "/zunta.conf.new", base_conf_ + extra);
    ASSERT_EQ(0, std::rename((dir_ + "/zunta.conf.new").c_str(), (dir_ + "/zunta.conf").c_str()));
  }

  void add(const std::vector<std::string>& lines) {
    std::string reply;
    for (const std::string& line : lines)
      ASSERT_EQ(0, sim_.control(line, &reply)) << line << ": " << reply;
  }

  // A node joins, as a mesh node linked to `peer` only.
  void join(const std::string& node, int host, const char* mac, const std::string& peer,
            const char* peer_mac) {
    add({"node " + node + " " + ip(host) + " " + mac, "client " + peer + " " + mac,
         "client " + node + " " + peer_mac, "gains " + node + " 0 6 0 0",
         "mesh " + peer + " " + node + " 300000"});
  }

  bool memory_holds(int pairs) const {
    std::string text = read_file(memory());
    return count_of(text, "\npair ") == pairs && text.find("\ncrc32 ") != std::string::npos;
  }

  // The last transmit pattern each node was told for each peer (command 10), among `seen`.
  static std::map<std::string, std::string> applied(const std::vector<seen_command>& seen) {
    std::map<std::string, std::string> last;
    for (const seen_command& c : seen) {
      if (c.line.rfind("10,", 0) == 0) last[c.node + " " + c.line.substr(c.line.find(' ') + 1)] = c.line;
    }
    return last;
  }

  // The nodes that received a training command: 4, 8, 5, or 2 with a fallback.
  std::set<std::string> trained_nodes() const {
    std::set<std::string> nodes;
    for (const seen_command& c : commands({2, 4, 5, 8})) {
      if (c.line[0] != '2' || c.line.find(",1.8.0.") != std::string::npos) nodes.insert(c.node);
    }
    return nodes;
  }

  std::string base_conf_;
};

TEST_F(TrainingMemoryScenario, RestartAppliesRememberedPatternsAndTrainsOnlyWhatIsNew) {
  start_mesh(17, TWO_NODES);
  base_conf_ = read_file(dir_ + "/zunta.conf");

  // Without the key, a file at the path is neither read nor replaced.
  write_file(memory(), "not read\n");
  start_daemon({"-e"});
  ASSERT_TRUE(daemon_->wait_for_output("zunta-coord: Training ends\n", E2E_WAIT_MS)) << daemon_->out();
  EXPECT_EQ("not read\n", read_file(memory()));
  EXPECT_THAT(daemon_->out(), Not(HasSubstr("Training memory")));

  // The key given at run time is used from the next pass on: c joins, only b-c trains, and the file
  // is replaced with both pairs.
  set_conf("training_memory=" + memory() + "\n");
  join("c", 3, C, "b", B);
  ASSERT_TRUE(wait_snapshot([](const std::string& s) { return count_of(s, "\"key\"") == 2; }));
  ASSERT_TRUE(daemon_->wait_until(
      [](const std::string& out) { return count_of(out, "Training ends\n") == 2; }, E2E_WAIT_MS));
  ASSERT_TRUE(wait_snapshot([&](const std::string&) { return memory_holds(2); }));
  const std::map<std::string, std::string> before = applied(commands());
  const std::string remembered = read_file(memory());
  daemon_->kill_now();

  // d joins while the daemon is down. Back, it applies the remembered patterns before any pair
  // trains, and trains c-d alone.
  join("d", 4, D, "c", C);
  sim_.clear_records();
  start_daemon({"-e"});
  ASSERT_TRUE(daemon_->wait_for_output("zunta-coord: Training ends\n", E2E_WAIT_MS)) << daemon_->out();
  EXPECT_THAT(daemon_->out(),
              HasSubstr("zunta-coord: Training memory " + memory() + " holds 2 trained mesh pairs\n"));
  EXPECT_THAT(daemon_->out(),
              HasSubstr("zunta-coord: Recalled 2 trained mesh pairs from " + memory() + ", 1 to train\n"));
  std::vector<seen_command> seen = commands();
  auto first_training = std::find_if(seen.begin(), seen.end(),
                                     [](const seen_command& c) { return c.line.rfind("4,", 0) == 0; });
  EXPECT_EQ(before, applied(std::vector<seen_command>(seen.begin(), first_training)));
  EXPECT_EQ((std::set<std::string>{"c", "d"}), trained_nodes());
  for (const seen_command& c : commands({4}))
    EXPECT_THAT(c.line, HasSubstr(c.node == "c" ? D : C)) << c;

  // The file now holds the three pairs; a-b as it was remembered, its training time included.
  ASSERT_TRUE(wait_snapshot([&](const std::string&) { return memory_holds(3); }));
  const std::string now = read_file(memory());
  std::size_t ab_end = remembered.find("\npair 0a:5a:00:00:00:01-");
  ASSERT_NE(std::string::npos, ab_end);
  const std::size_t ab = ab_end;
  for (int line = 0; line < 17; ++line)
    ab_end = remembered.find('\n', ab_end + 1);
  const std::string ab_block = remembered.substr(ab, ab_end - ab);
  EXPECT_THAT(now, HasSubstr(ab_block));
  EXPECT_EQ(3, count_of(read_file(snapshot()), "\"trained\": 1"));
  daemon_->kill_now();

  // A damaged file costs one warning naming it and the reason, and the pairs are trained again. (The
  // loader's other refusals are the unit test's.)
  std::string flipped = now;
  flipped[now.find("\nround 5 ") + 9] ^= 1;
  write_file(memory(), flipped);
  sim_.clear_records();
  start_daemon({"-e"});
  ASSERT_TRUE(wait_commands("", 4, 1));
  ASSERT_TRUE(daemon_->wait_for_output(" ignored: ", E2E_WAIT_MS)) << daemon_->out();
  const std::string out = daemon_->out();
  EXPECT_THAT(out, HasSubstr("Training memory " + memory() + " ignored: checksum mismatch"));
  EXPECT_EQ(1, count_of(out, " ZUNTA:W:")) << out;
  EXPECT_THAT(out, Not(HasSubstr("Recalled")));
}

}  // namespace

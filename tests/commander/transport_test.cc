// The command channel against a scripted agent on loopback, with the time scale small.
#include "commander/transport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commander/failures.h"
#include "core/fd.h"
#include "core/log.h"
#include "core/runtime.h"
#include "support/capture_stdout.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

using ::testing::HasSubstr;

class CommandChannelTest : public ::testing::Test {
 protected:
  static constexpr char AGENT_IP[] = "127.0.3.2";
  void start_agent(fake_agent::script replies) {
    agent_ = std::make_unique<fake_agent>(AGENT_IP, test_agent_port(), std::move(replies));
    ASSERT_TRUE(agent_->running()) << "cannot listen on " << AGENT_IP;
  }
  // Sends command 9 with retries; gives the wrapper's result.
  int send9() {
    return zunta_make_and_send_command(command_, 9, -1, PLACEHOLDER_IP, ZERO_MAC, answer_, AGENT_IP);
  }
  std::unique_ptr<fake_agent> agent_;
  char command_[COMMAND_SIZE] = {};
  char answer_[ANSWER_SIZE] = {};
};

TEST_F(CommandChannelTest, TheWholeBufferGoesOnTheWire) {
  start_agent({{"ack"}});
  std::memset(command_, 'z', sizeof command_);  // leftovers of an earlier, longer command line
  ASSERT_EQ(0, zunta_make_command(command_, 9, -1, PLACEHOLDER_IP, ZERO_MAC));
  EXPECT_EQ(0, zunta_send_command(command_, answer_, AGENT_IP));
  agent_->stop();
  ASSERT_EQ(1u, agent_->frames().size());
  std::string frame = agent_->frames()[0];
  ASSERT_EQ(1024u, frame.size());
  EXPECT_EQ(std::string("9,-1,127.0.0.1 00:00:00:00:00:00\n\0zz", 36), frame.substr(0, 36));
  EXPECT_STREQ("", answer_);
}

// Lines before the marker's own read are kept; text in the same read as the marker is lost.
TEST_F(CommandChannelTest, AnswerIsWhatArrivesBeforeTheMarkersRead) {
  start_agent(
      {{"aa:bb:cc:00:00:01,2,3\n", "aa:bb:cc:00:00:02,2,1\n", "ack"}, {"aa:bb:cc:00:00:01,2,3\nack"}});
  EXPECT_EQ(0, send9());
  EXPECT_STREQ("aa:bb:cc:00:00:01,2,3\naa:bb:cc:00:00:02,2,1\n", answer_);
  std::memset(answer_, 0, sizeof answer_);
  EXPECT_EQ(0, send9());
  EXPECT_STREQ("", answer_);
}

TEST_F(CommandChannelTest, SilenceCountsAsRefusal) {
  start_agent({{}, {"ack"}});
  EXPECT_EQ(1, zunta_send_command(command_, answer_, AGENT_IP));
  EXPECT_EQ(0, send9());  // the next connection is acknowledged
}

// However fast the agent refuses, the twenty repetitions wait their (scaled) second each; the
// command then counts as one failed exchange of the node.
TEST_F(CommandChannelTest, RefusalIsRepeatedTwentyTimesAtOneSecondPausesThenGivenUp) {
  start_agent({{"nack"}});
  log_level_scope verbose(LVL_I);
  capture_stdout out;
  const uint32_t failures = zunta_exchange_failures(AGENT_IP);
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(1, send9());
  EXPECT_GE(std::chrono::steady_clock::now() - started,
            std::chrono::microseconds(20 * zunta_scaled_us(1000000)));
  EXPECT_EQ(failures + 1, zunta_exchange_failures(AGENT_IP));
  EXPECT_THAT(out.text(), HasSubstr("Maximum number of requests is reached\n"));
  agent_->stop();
  EXPECT_EQ(21u, agent_->commands().size());
}

TEST_F(CommandChannelTest, UnmarkedAnswersAccumulateUpToTheBuffer) {
  std::string line = std::string(59, 'x') + "\n";  // 60 bytes: 21 attempts would hold 1260
  start_agent({{line}});
  EXPECT_EQ(2, zunta_send_command(command_, answer_, AGENT_IP));
  std::memset(answer_, 0, sizeof answer_);
  EXPECT_EQ(0, send9());
  EXPECT_EQ(1023u, std::strlen(answer_));
  EXPECT_EQ(line + line, std::string(answer_, 120));
  agent_->stop();
  EXPECT_EQ(22u, agent_->commands().size());
}

// The whole answer may take ten read time-outs (1.5 s here). An answer whose bytes come within the
// read time-out of each other and end within that bound is taken on the first attempt; one that
// trickles on is cut at the bound and not asked for again.
TEST_F(CommandChannelTest, ASlowAnswerIsTakenWholeATricklingOneIsCutOnce) {
  std::vector<std::string> slow;
  for (int i = 0; i < 7; ++i)
    slow.push_back("aa:bb:cc:00:00:0" + std::to_string(i) + ",2,1\n");
  std::string lines;
  for (const std::string& line : slow)
    lines += line;
  slow.push_back("ack");  // 350 ms after the first line, each gap 50 ms
  start_agent({slow, std::vector<std::string>(100, "x")});
  log_level_scope verbose(LVL_I);
  capture_stdout out;
  EXPECT_EQ(0, send9());
  EXPECT_EQ(lines, answer_);
  std::memset(answer_, 0, sizeof answer_);
  EXPECT_EQ(1, send9());  // 100 bytes 50 ms apart would take 5 s
  EXPECT_LT(std::strlen(answer_), 50u);
  EXPECT_THAT(out.text(), HasSubstr("not repeated: its answer was cut\n"));
  agent_->stop();
  EXPECT_EQ(2u, agent_->commands().size());
}

// With every descriptor taken, no exchange can start: the attempts count as unanswered, and
// nothing is taken for an answer.
TEST_F(CommandChannelTest, OutOfDescriptorsIsSilenceNeverAnAnswer) {
  start_agent({{"aa:bb:cc:00:00:01,2,3\n", "ack"}});
  rlimit saved{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
  rlimit low = saved;
  low.rlim_cur = 64;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
  std::vector<unique_fd> taken;
  for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
    taken.emplace_back(fd);
  const int result = send9();
  taken.clear();
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
  EXPECT_EQ(1, result);
  EXPECT_STREQ("", answer_);
  EXPECT_EQ(0, send9());
  agent_->stop();
  EXPECT_EQ(1u, agent_->commands().size());
}

TEST_F(CommandChannelTest, ARepetitionDropsTheCutLineOfThePreviousAttempt) {
  const std::string full = "aa:bb:cc:00:00:01,2,0x1,100000,9,9,100000\n";
  start_agent({{"aa:bb:cc:00:00:09,2,0x1,5,5,5,5\naa:bb:cc:00:00:01,2,0x1,100"}, {full, "ack"}});
  EXPECT_EQ(0, zunta_make_and_send_command(command_, CMD_STOP_TRAINING, -1, PLACEHOLDER_IP, ZERO_MAC, answer_,
                                           AGENT_IP));
  EXPECT_EQ("aa:bb:cc:00:00:09,2,0x1,5,5,5,5\n" + full, std::string(answer_));
}

TEST_F(CommandChannelTest, ABatchRunsItsExchangesAtOnce) {
  // Each agent answers only once all of them hold their command: one after the other, the first
  // would wait in vain and be asked again.
  constexpr std::size_t N = 4;
  auto barrier = std::make_shared<agent_barrier>(static_cast<int>(N));
  std::unique_ptr<fake_agent> agents[N];
  std::string ips[N], lines[N];
  zunta_command_job jobs[N] = {};
  for (std::size_t i = 0; i < N; ++i) {
    ips[i] = "127.0.3." + std::to_string(20 + i);
    lines[i] = "aa:bb:cc:00:00:0" + std::to_string(i) + ",2,1\n";
    agents[i] = std::make_unique<fake_agent>(ips[i].c_str(), test_agent_port(),
                                             fake_agent::script{{lines[i], "ack"}}, barrier);
    ASSERT_TRUE(agents[i]->running());
    jobs[i] = {CMD_GET_MESH_LIST, -1, PLACEHOLDER_IP, ZERO_MAC, ips[i].c_str(), {}, {}, 7, {}};
  }
  zunta_make_and_send_commands(jobs, N);
  for (std::size_t i = 0; i < N; ++i) {
    SCOPED_TRACE(ips[i]);
    EXPECT_EQ(0, jobs[i].result);
    EXPECT_EQ(lines[i], jobs[i].answer);
    agents[i]->stop();
    EXPECT_EQ(std::vector<std::string>{"1,-1,127.0.0.1 00:00:00:00:00:00"}, agents[i]->commands());
  }
}

TEST_F(CommandChannelTest, LocalFailuresAreNotRepeated) {
  // Nobody listens on this address: the connection is refused.
  EXPECT_EQ(-1,
            zunta_make_and_send_command(command_, 1, -1, PLACEHOLDER_IP, ZERO_MAC, answer_, "127.0.3.99"));
  // The agent refuses, then is gone when the command is repeated: the command did not go through.
  start_agent({{"nack"}});
  agent_->vanish_after(1);
  EXPECT_EQ(-1, send9());
  start_agent({{"ack"}});
  for (const char* ip : {"127.0.3", "localhost", "127.0.3.2.1", ""}) {
    SCOPED_TRACE(ip);
    EXPECT_EQ(-1, zunta_make_and_send_command(command_, 1, -1, PLACEHOLDER_IP, ZERO_MAC, answer_, ip));
  }
  EXPECT_EQ(-1, zunta_make_command(command_, 12, -1, PLACEHOLDER_IP, ZERO_MAC));
  agent_->stop();
  EXPECT_TRUE(agent_->commands().empty());
}

}  // namespace

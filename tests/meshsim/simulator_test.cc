// The simulator over its sockets, driven by a plain test client: framing, answer formats as the
// coordinator scans them, faults, discovery and run-time control.
#include "meshsim/simulator.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/zunta_fd.h"
#include "meshsim/generate.h"
#include "support/test_env.h"

namespace meshsim {
namespace {

constexpr uint16_t AGENT_PORT = 24701;
constexpr uint16_t DISCOVERY_PORT = 24702;
constexpr char DISCOVERY_IP[] = "127.0.7.255";
constexpr char ZERO_MAC[] = "00:00:00:00:00:00";
constexpr char MAC1[] = "0a:5a:00:00:00:01";
constexpr char MAC2[] = "0a:5a:00:00:00:02";
constexpr char MAC3[] = "0a:5a:00:00:00:03";
constexpr char N4_CLIENTS[] = "0a:5a:00:00:00:01\n0a:5a:00:00:00:02\n0a:5a:00:00:00:03\n";

std::string frame(const std::string& line) {
  std::string f = line + "\n";
  f.resize(FRAME_SIZE, '\0');
  return f;
}

std::string cmd(int index, int value, const std::string& arg1, const std::string& arg2) {
  return std::to_string(index) + "," + std::to_string(value) + "," + arg1 + " " + arg2;
}

struct exchange_result {
  bool connected = false;
  std::vector<std::string> chunks;  // one per read
  bool closed = false;              // the agent closed (rather than a read time-out)
};

// Sends `bytes` in pieces of `piece` bytes, then reads until the agent closes or stays quiet for
// read_ms.
exchange_result talk(const std::string& ip, const std::string& bytes, int read_ms = 3000,
                     std::size_t piece = FRAME_SIZE) {
  exchange_result r;
  unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(AGENT_PORT);
  inet_pton(AF_INET, ip.c_str(), &addr.sin_addr);
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return r;
  r.connected = true;
  timeval limit{read_ms / 1000, (read_ms % 1000) * 1000};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    if (at > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    send(fd.get(), bytes.data() + at, std::min(piece, bytes.size() - at), MSG_NOSIGNAL);
  }
  char buf[8192];
  ssize_t got;
  while ((got = recv(fd.get(), buf, sizeof buf, 0)) > 0)
    r.chunks.emplace_back(buf, got);
  r.closed = got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
  return r;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  for (std::size_t pos = 0, end; (end = text.find('\n', pos)) != std::string::npos; pos = end + 1) {
    out.push_back(text.substr(pos, end - pos));
  }
  return out;
}

class SimulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start(""); }

  void start(const std::string& extra) {
    sim_.stop();
    std::string path = __FILE__;
    path = path.substr(0, path.rfind("/tests/")) + "/tools/meshsim/examples/four-nodes.topo";
    config_.topology = read_file(path) + extra;
    ASSERT_FALSE(config_.topology.empty()) << path;
    config_.relocate_base = "127.0.7";
    config_.agent_port = AGENT_PORT;
    config_.discovery_address = DISCOVERY_IP;
    config_.discovery_port = DISCOVERY_PORT;
    config_.marker_gap_ms = 150;  // wide enough that text and marker never share a read
    config_.frame_timeout_ms = 1000;
    config_.record_path = test_dir() + "/meshsim-record.jsonl";
    config_.log = false;
    std::string error;
    ASSERT_EQ(0, sim_.start(config_, &error)) << error;
  }

  void control(const std::string& line) {
    std::string reply;
    ASSERT_EQ(0, sim_.control(line, &reply)) << line << ": " << reply;
  }

  // Exchanges one command and returns the answer text, checking it ends with "ack" in a read of its own.
  std::string answer_of(const std::string& ip, const std::string& line) {
    exchange_result r = talk(ip, frame(line));
    EXPECT_TRUE(r.closed) << line;
    if (r.chunks.empty() || r.chunks.back() != "ack") {
      ADD_FAILURE() << line << ": no separate ack";
      return "";
    }
    std::string text;
    for (std::size_t i = 0; i + 1 < r.chunks.size(); ++i)
      text += r.chunks[i];
    return text;
  }

  std::string last_answer_kind() {
    std::vector<command_record> records = sim_.records();
    return records.empty() ? "" : records.back().answer;
  }

  sim_config config_;
  mesh_simulator sim_;
};

TEST_F(SimulatorTest, FrameArrivingInPiecesIsOneCommandAndTheMarkerComesInItsOwnRead) {
  exchange_result r = talk("127.0.7.1", frame(cmd(9, -1, "127.0.0.1", ZERO_MAC)), 3000, 300);
  ASSERT_EQ(2u, r.chunks.size());
  EXPECT_EQ("ack", r.chunks[1]);
  EXPECT_TRUE(r.closed);
  std::set<std::string> clients;
  for (const std::string& line : lines_of(r.chunks[0])) {
    char mac[64] = {};
    ASSERT_EQ(1, std::sscanf(line.c_str(), "%[^,]", mac)) << line;
    clients.insert(mac);
  }
  EXPECT_EQ((std::set<std::string>{MAC2, MAC3, "0a:5a:00:00:00:04", "3c:22:fb:10:20:30"}), clients);

  std::vector<command_record> records = sim_.records();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("n1", records[0].node);
  EXPECT_EQ("9,-1,127.0.0.1 00:00:00:00:00:00", records[0].line);
  EXPECT_EQ(9, records[0].index);
  EXPECT_EQ(FRAME_SIZE, records[0].frame_len);
  EXPECT_EQ("text+ack", records[0].answer);
  std::string file = read_file(config_.record_path);
  EXPECT_NE(std::string::npos, file.find("\"line\":\"9,-1,127.0.0.1 00:00:00:00:00:00\"")) << file;
  EXPECT_EQ(1, std::count(file.begin(), file.end(), '\n'));
}

TEST_F(SimulatorTest, TrainingRoundAnswersParseWithTheCoordinatorsFormats) {
  int neighbours = 0;
  for (const std::string& line : lines_of(answer_of("127.0.7.2", cmd(1, -1, "127.0.0.1", ZERO_MAC)))) {
    char mac[18] = {};
    int radio = 0, pattern = 0;
    ASSERT_EQ(3, std::sscanf(line.c_str(), "%17[^,],%d,%d", mac, &radio, &pattern)) << line;
    EXPECT_EQ(2, radio);
    EXPECT_EQ(3, pattern);
    ++neighbours;
  }
  EXPECT_EQ(3, neighbours);  // n1, n3 and the one-sided n4

  // One round of the n1-n2 pair: n1 on pattern 1, n2 on pattern 2 (the best of the tables).
  EXPECT_EQ("", answer_of("127.0.7.1", cmd(2, 1, "1.8.0.0", MAC2)));
  EXPECT_EQ("", answer_of("127.0.7.2", cmd(2, 2, "1.8.0.3", MAC1)));
  for (const auto& [ip, peer_mac, peer_ip] :
       {std::tuple{"127.0.7.1", MAC2, "127.0.7.2"}, std::tuple{"127.0.7.2", MAC1, "127.0.7.1"}}) {
    EXPECT_EQ("", answer_of(ip, cmd(4, -1, "127.0.0.1", peer_mac)));
    EXPECT_EQ("", answer_of(ip, cmd(8, -1, peer_ip, ZERO_MAC)));
  }
  EXPECT_EQ("1.8.0.0", sim_.fallback("n1"));
  EXPECT_EQ(2, sim_.tx_pattern("n2", MAC1));
  const struct {
    const char* ip;
    const char* peer;
    unsigned pattern;
    int ma;
  } results[] = {{"127.0.7.1", MAC2, 1, 520000}, {"127.0.7.2", MAC1, 2, 510000}};
  for (const auto& expected : results) {
    SCOPED_TRACE(expected.ip);
    std::vector<std::string> lines = lines_of(answer_of(expected.ip, cmd(5, -1, "127.0.0.1", ZERO_MAC)));
    ASSERT_EQ(1u, lines.size());
    char mac[18] = {};
    int radio = 0, avg = 0, nframes = 0, nfeedback = 0, ma = 0;
    unsigned pattern = 9;
    ASSERT_EQ(7, std::sscanf(lines[0].c_str(), "%17[^,],%d,0x%x,%d,%d,%d,%d", mac, &radio, &pattern, &avg,
                             &nframes, &nfeedback, &ma));
    EXPECT_STREQ(expected.peer, mac);
    EXPECT_EQ(2, radio);
    EXPECT_EQ(expected.pattern, pattern);
    EXPECT_EQ(expected.ma, ma);
    EXPECT_EQ(expected.ma, avg);  // the first measurement of the link
    EXPECT_GT(nframes, 0);
    // The measurement is over: another stop reports nothing.
    EXPECT_EQ("", answer_of(expected.ip, cmd(5, -1, "127.0.0.1", ZERO_MAC)));
  }

  // A receive pattern on n1 decides the column of n2's measurement towards n1.
  EXPECT_EQ("", answer_of("127.0.7.1", cmd(11, 0, "127.0.0.1", ZERO_MAC)));
  EXPECT_EQ(0, sim_.rx_pattern("n1"));
  EXPECT_EQ("", answer_of("127.0.7.2", cmd(4, -1, "127.0.0.1", MAC1)));
  EXPECT_NE(std::string::npos, answer_of("127.0.7.2", cmd(5, -1, "127.0.0.1", ZERO_MAC)).find(",280000\n"));
}

TEST_F(SimulatorTest, MalformedCommandsAndShortFramesAreRefused) {
  for (const std::string& line :
       {cmd(3, -1, "127.0.0.1", ZERO_MAC), cmd(7, -1, "127.0.0.1", ZERO_MAC),
        cmd(12, -1, "127.0.0.1", ZERO_MAC), cmd(-1, -1, "127.0.0.1", ZERO_MAC),
        std::string("x,-1,127.0.0.1 ") + ZERO_MAC, std::string("9,-1,127.0.0.1"),
        cmd(2, 4, "127.0.0.1", MAC2), cmd(2, 1, "fallback", MAC2), cmd(4, -1, "127.0.0.1", "0a:5a"),
        cmd(6, -1, "127.0.0.1", MAC2), cmd(11, -1, "127.0.0.1", ZERO_MAC)}) {
    SCOPED_TRACE(line);
    exchange_result r = talk("127.0.7.1", frame(line));
    EXPECT_EQ(std::vector<std::string>{"nack"}, r.chunks);
    EXPECT_TRUE(r.closed);
  }
  EXPECT_EQ(3, sim_.tx_pattern("n1", MAC2));  // refused commands change nothing

  // A whole frame without a line feed, and frames that stop short by a close or by silence.
  EXPECT_EQ(std::vector<std::string>{"nack"}, talk("127.0.7.1", std::string(FRAME_SIZE, 'x')).chunks);
  EXPECT_EQ(std::vector<std::string>{"nack"},
            talk("127.0.7.1", frame("9,-1,127.0.0.1 x").substr(0, 100)).chunks);
  std::vector<command_record> records = sim_.records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ("short_frame", records.back().answer);
  EXPECT_EQ(100u, records.back().frame_len);
  EXPECT_EQ("9,-1,127.0.0.1 x", records.back().line);

  // Bursts of connections that close at once or send junk leave the agents answering.
  std::vector<std::thread> burst;
  for (int i = 0; i < 40; ++i) {
    burst.emplace_back([i] {
      unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_port = htons(AGENT_PORT);
      inet_pton(AF_INET, "127.0.7.3", &addr.sin_addr);
      if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return;
      std::string junk(i % 2 == 0 ? 3 : 2000, '\xff');
      if (i % 3 != 0) send(fd.get(), junk.data(), junk.size(), MSG_NOSIGNAL);
    });
  }
  for (std::thread& t : burst)
    t.join();
  EXPECT_EQ(N4_CLIENTS, answer_of("127.0.7.4", cmd(9, -1, "127.0.0.1", ZERO_MAC)));
}

TEST_F(SimulatorTest, FaultsShowTheirBehaviourOnTheWire) {
  const std::string clients = cmd(9, -1, "127.0.0.1", ZERO_MAC);
  const std::string neighbours = cmd(1, -1, "127.0.0.1", ZERO_MAC);
  const std::string cut = std::string(N4_CLIENTS).substr(0, std::string(N4_CLIENTS).size() / 2);
  struct attempt {
    std::string line;
    std::vector<std::string> chunks;
    bool closed;
    const char* kind;
  };
  const struct {
    const char* fault;
    std::vector<attempt> attempts;
  } cases[] = {
      {"nack 2",
       {{clients, {"nack"}, true, "nack"},
        {clients, {"nack"}, true, "nack"},
        {clients, {N4_CLIENTS, "ack"}, true, "text+ack"}}},
      {"nack_always on=1",
       {{clients, {N4_CLIENTS, "ack"}, true, "text+ack"}, {neighbours, {"nack"}, true, "nack"}}},
      {"silent on=9", {{clients, {}, false, "silent"}}},
      {"no_marker", {{clients, {N4_CLIENTS}, true, "no_marker"}}},
      {"cut", {{clients, {cut}, true, "cut"}}},
      {"same_send", {{clients, {std::string(N4_CLIENTS) + "ack"}, true, "same_send"}}},
      {"delay 200",
       {{clients, {N4_CLIENTS, "ack"}, true, "text+ack"},
        {cmd(11, 1, "127.0.0.1", ZERO_MAC), {"ack"}, true, "ack"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fault);
    control(std::string("fault n4 ") + c.fault);
    for (const attempt& a : c.attempts) {
      SCOPED_TRACE(a.line);
      exchange_result r = talk("127.0.7.4", frame(a.line), a.closed ? 3000 : 400);
      EXPECT_EQ(a.chunks, r.chunks);
      EXPECT_EQ(a.closed, r.closed);
      EXPECT_EQ(a.kind, last_answer_kind());
    }
    control("fault n4 none");
  }

  control("fault n4 refuse");
  EXPECT_FALSE(talk("127.0.7.4", frame(clients)).connected);
  control("fault n4 refuse off");
  EXPECT_EQ(N4_CLIENTS, answer_of("127.0.7.4", clients));
}

TEST_F(SimulatorTest, GarbledAnswersKeepTheirValidLines) {
  control("fault n3 garbage on=1");
  control("fault n4 radio 1 on=5");
  control("fault n2 no_peer_line");
  std::string text = answer_of("127.0.7.3", cmd(1, -1, "127.0.0.1", ZERO_MAC));
  int valid = 0;
  bool over_long = false;
  for (const std::string& line : lines_of(text)) {
    char mac[18] = {};
    int radio = 0, pattern = 0;
    over_long |= line.size() > FRAME_SIZE;
    if (std::sscanf(line.c_str(), "%17[^,],%d,%d", mac, &radio, &pattern) == 3 && radio == 2) ++valid;
  }
  EXPECT_EQ(3, valid);
  EXPECT_TRUE(over_long);
  EXPECT_NE('\n', text.back());

  for (const auto& [ip, peer, expect_radio, expect_peer] :
       {std::tuple{"127.0.7.4", MAC3, 1, true}, std::tuple{"127.0.7.2", MAC3, 2, false}}) {
    SCOPED_TRACE(ip);
    EXPECT_EQ("", answer_of(ip, cmd(4, -1, "127.0.0.1", peer)));
    std::vector<std::string> lines = lines_of(answer_of(ip, cmd(5, -1, "127.0.0.1", ZERO_MAC)));
    ASSERT_EQ(1u, lines.size());
    char mac[18] = {};
    int radio = 0;
    ASSERT_EQ(2, std::sscanf(lines[0].c_str(), "%17[^,],%d", mac, &radio));
    EXPECT_EQ(expect_radio, radio);
    EXPECT_EQ(expect_peer, std::string(mac) == peer);
  }
}

// Sends "IP?" to the responder and collects the answers until a quiet second.
std::vector<std::string> discover(const std::string& from_ip = "127.0.7.200") {
  unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in self{};
  self.sin_family = AF_INET;
  inet_pton(AF_INET, from_ip.c_str(), &self.sin_addr);
  bind(fd.get(), reinterpret_cast<sockaddr*>(&self), sizeof self);
  timeval limit{1, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(DISCOVERY_PORT);
  inet_pton(AF_INET, DISCOVERY_IP, &to.sin_addr);
  sendto(fd.get(), "IP?", 4, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  std::vector<std::string> answers;
  char buf[128];
  sockaddr_in from{};
  socklen_t len = sizeof from;
  for (ssize_t got; (got = recvfrom(fd.get(), buf, 64, 0, reinterpret_cast<sockaddr*>(&from), &len)) > 0;) {
    char ip[16] = {}, mac[18] = {}, source[16] = {};
    int value = 0, eth = 0;
    std::string text(buf, got);
    EXPECT_EQ(4, std::sscanf(text.c_str(), "%15[^,],%17[^,],%d,%d", ip, mac, &value, &eth)) << text;
    inet_ntop(AF_INET, &from.sin_addr, source, sizeof source);
    EXPECT_STREQ(ip, source);  // each answer comes from the node's own address
    answers.push_back(ip);
  }
  return answers;
}

TEST_F(SimulatorTest, DiscoveryAnswersEveryNodeUnlessAFaultSaysOtherwise) {
  EXPECT_EQ((std::vector<std::string>{"127.0.7.1", "127.0.7.2", "127.0.7.3", "127.0.7.4"}), discover());
  control("fault n2 no_discovery");
  control("fault n3 dup_discovery");
  EXPECT_EQ((std::vector<std::string>{"127.0.7.1", "127.0.7.3", "127.0.7.3", "127.0.7.4"}), discover());
  ASSERT_TRUE(sim_.wait_for(
      [](const std::vector<command_record>& r) { return r.size() == 2 && r[1].answer == "answers 4"; },
      1000));
}

TEST_F(SimulatorTest, HundredsOfNodesAreAllDiscovered) {
  sim_.stop();
  sim_config config = config_;
  std::string error;
  ASSERT_EQ(0, generate_topology(260, 3, "127.0.8", &config.topology, &error)) << error;
  config.relocate_base.clear();
  config.record_path.clear();
  mesh_simulator big;
  ASSERT_EQ(0, big.start(config, &error)) << error;
  std::vector<std::string> answers = discover();
  EXPECT_EQ(260u, std::set<std::string>(answers.begin(), answers.end()).size());
  EXPECT_EQ(260u, answers.size());
}

TEST_F(SimulatorTest, ControlChangesTheMeshWhileItRuns) {
  control("del node n4");
  EXPECT_FALSE(talk("127.0.7.4", frame(cmd(9, -1, "127.0.0.1", ZERO_MAC))).connected);
  EXPECT_EQ(std::string(MAC1) + ",2,3\n" + MAC3 + ",2,3\n",
            answer_of("127.0.7.2", cmd(1, -1, "127.0.0.1", ZERO_MAC)));

  control("node n5 127.0.7.5 0a:5a:00:00:00:05");
  control("mesh n5 n1 100000");
  control("del mesh n1 n3");
  control("table n1 n2 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7");
  EXPECT_EQ(std::string(MAC1) + ",2,3\n", answer_of("127.0.7.5", cmd(1, -1, "127.0.0.1", ZERO_MAC)));
  EXPECT_EQ(std::string(MAC2) + ",2,3\n0a:5a:00:00:00:05,2,3\n",
            answer_of("127.0.7.1", cmd(1, -1, "127.0.0.1", ZERO_MAC)));
  EXPECT_EQ("", answer_of("127.0.7.1", cmd(8, -1, "127.0.7.2", ZERO_MAC)));
  EXPECT_EQ(std::string(MAC2) + ",2,0x3,7,3,3,7\n",
            answer_of("127.0.7.1", cmd(5, -1, "127.0.0.1", ZERO_MAC)));

  std::string reply;
  EXPECT_EQ(-1, sim_.control("node n6 10.1.1.1 0a:5a:00:00:00:06", &reply));
  EXPECT_NE(std::string::npos, reply.find("127.x.y.z")) << reply;

  // The same lines over the control socket.
  sim_.stop();
  config_.control_path = test_dir() + "/meshsim.sock";
  start("");
  unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", config_.control_path.c_str());
  ASSERT_EQ(0, connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  std::string lines = "fault n1 nack_always\nshow n1\nbogus\n";
  send(fd.get(), lines.data(), lines.size(), MSG_NOSIGNAL);
  std::string got;
  char c;
  while (std::count(got.begin(), got.end(), '\n') < 3 && recv(fd.get(), &c, 1, 0) == 1)
    got += c;
  std::vector<std::string> replies = lines_of(got);
  ASSERT_EQ(3u, replies.size()) << got;
  EXPECT_EQ("ok", replies[0]);
  EXPECT_EQ(0u, replies[1].find("n1 127.0.7.1 0a:5a:00:00:00:01 listening=yes")) << replies[1];
  EXPECT_EQ(0u, replies[2].find("error: ")) << replies[2];
  EXPECT_EQ(std::vector<std::string>{"nack"},
            talk("127.0.7.1", frame(cmd(9, -1, "127.0.0.1", ZERO_MAC))).chunks);
}

}  // namespace
}  // namespace meshsim

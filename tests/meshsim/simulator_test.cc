// The simulator's parts that the end-to-end scenarios do not reach: topology errors, the radio
// model and the generator without sockets; then, over the sockets, broken frames and bursts,
// malformed lines, the fault kinds and discovery faults. The shipped four-node example is driven
// end to end by the parallel training scenario.
#include "meshsim/simulator.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/fd.h"
#include "meshsim/generate.h"
#include "meshsim/radio.h"
#include "support/test_env.h"

namespace meshsim {
namespace {

constexpr char TWO_NODES[] = "node a 127.0.7.1 0a:00:00:00:00:01\nnode b 127.0.7.2 0a:00:00:00:00:02\n";

topology load(const std::string& statements, int result = 0) {
  topology topo;
  std::string error;
  EXPECT_EQ(result, load_topology(topo, TWO_NODES + statements, &error)) << statements << ": " << error;
  return topo;
}

// Each line has one defect only, so it cannot be refused for another reason.
TEST(TopologyTest, BadStatementsAndAddressesOutsideLoopbackAreRefused) {
  for (const char* line : {"node c 198.51.100.3 0a:00:00:00:00:03", "node c 127.0.7.255 0a:00:00:00:00:03",
                           "node c 127.0.7.3 0a:00:00:00:00", "node c 127.0.7.3 0A:00:00:00:00:01",
                           "mesh a c 1000", "table a b 1 2 3", "link a b -5", "fault a nack",
                           "fault a silent on=12", "client z 0a:00:00:00:00:09", "noise 101"})
    load(line, -1);
  std::string out;
  EXPECT_EQ(-1, relocate_topology(TWO_NODES, "198.51.100", &out));
}

TEST(RadioModelTest, TableRowIsOwnPatternAndColumnThePeersTransmitOrReceivePattern) {
  topology topo = load("table a b 0 1 2 3 10 11 12 13 20 21 22 23 30 31 32 33\n");
  node& a = topo.nodes[0];
  node& b = topo.nodes[1];
  set_tx_pattern(a, b.mac, 1);
  set_tx_pattern(b, "0A:00:00:00:00:01", 2);  // any letter case names the peer
  EXPECT_EQ(12, model_bitrate(topo, a, b, a.links[0]));
  b.rx_pattern = 0;  // a receive pattern replaces b's pattern towards a
  EXPECT_EQ(10, model_bitrate(topo, a, b, a.links[0]));
}

TEST(SeedTest, SameSeedGivesTheSameMeshAndTheSameFigures) {
  std::string mesh, again, other, error;
  ASSERT_EQ(0, generate_topology(260, 5, "127.0.8", &mesh, &error)) << error;
  generate_topology(260, 5, "127.0.8", &again, &error);
  generate_topology(260, 6, "127.0.8", &other, &error);
  EXPECT_EQ(mesh, again);
  EXPECT_NE(mesh, other);
  EXPECT_EQ(262u, load(mesh).nodes.size());  // loopback addresses on into the next /24

  auto figure = [](const std::string& extra, uint64_t rng) {
    topology topo = load("gains a 0 3 -3 1\nlink a b 300000\n" + extra);
    return measure(topo, topo.nodes[0], topo.nodes[1], topo.nodes[0].links[0], &rng).avg_bitrate_ma;
  };
  EXPECT_NE(figure("", 1), figure("seed 2\n", 1));
  EXPECT_EQ(figure("noise 10\n", 7), figure("noise 10\n", 7));
}

constexpr uint16_t AGENT_PORT = 24701;
constexpr uint16_t DISCOVERY_PORT = 24702;
constexpr char ASK_CLIENTS[] = "9,-1,127.0.0.1 00:00:00:00:00:00";
constexpr char CLIENTS_OF_N2[] = "0a:5a:00:00:00:01\n";

std::string frame(const std::string& line) {
  return (line + "\n").append(FRAME_SIZE - line.size() - 1, '\0');
}

// Sends `bytes` and returns the agent's reads joined by '|', with "..." when it kept the connection
// open for 3 s, or "refused".
std::string talk(const char* ip, const std::string& bytes) {
  unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{AF_INET, htons(AGENT_PORT), {}, {}};
  inet_pton(AF_INET, ip, &to.sin_addr);
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) return "refused";
  timeval limit{3, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  std::string wire;
  char buf[8192];
  ssize_t got;
  while ((got = recv(fd.get(), buf, sizeof buf, 0)) > 0)
    wire += (wire.empty() ? "" : "|") + std::string(buf, static_cast<std::size_t>(got));
  return got < 0 && errno == EAGAIN ? wire + "..." : wire;
}

class SimulatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_config c;
    c.topology =
        "node n1 127.0.7.1 0a:5a:00:00:00:01\nnode n2 127.0.7.2 0a:5a:00:00:00:02\n"
        "node n3 127.0.7.3 0a:5a:00:00:00:03\nclient n2 0a:5a:00:00:00:01\nneighbour n2 n1\n"
        "table n2 n1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 640\n";
    c.agent_port = AGENT_PORT;
    c.discovery_address = "127.0.7.255";
    c.discovery_port = DISCOVERY_PORT;
    c.marker_gap_ms = 150;  // wide enough that text and marker never share a read
    c.frame_timeout_ms = 1000;
    c.log = false;
    ASSERT_EQ(0, sim_.start(c, &reply_)) << reply_;
  }

  mesh_simulator sim_;
  std::string reply_;
};

TEST_F(SimulatorTest, BrokenFramesMalformedLinesAndBurstsGetNack) {
  for (const char* line :
       {"3,-1,a b", "12,-1,a b", "x,-1,a b", "9,-1,a", "9,-1,a b c", "9,,a b", "99999999999,-1,a b",
        "9,-1,a b\r", "2,4,127.0.0.1 0a:5a:00:00:00:02", "2,1,fallback 0a:5a:00:00:00:02", "10,1,a 0a:5a",
        "0,-1,a 0a:5a", "6,-1,a 0a:5a:00:00:00:02", "11,-1,a b", "8,-1,node3 b"})
    EXPECT_EQ("nack", talk("127.0.7.1", frame(line))) << line;
  EXPECT_EQ(3, sim_.tx_pattern("n1", "0a:5a:00:00:00:02"));                 // nothing was set
  EXPECT_EQ("nack", talk("127.0.7.1", std::string(FRAME_SIZE, 'x')));       // no line feed
  EXPECT_EQ("nack", talk("127.0.7.1", frame(ASK_CLIENTS).substr(0, 100)));  // a frame that stops short

  std::vector<std::thread> burst;
  for (int i = 0; i < 40; ++i)
    burst.emplace_back([i] { talk("127.0.7.3", std::string(i % 2 ? 2000 : 3 * (i % 3), '\xff')); });
  for (std::thread& t : burst)
    t.join();
  // The agents still answer, the marker in a read of its own.
  EXPECT_EQ(std::string(CLIENTS_OF_N2) + "|ack", talk("127.0.7.2", frame(ASK_CLIENTS)));
}

// Each row adds a fault to n2 and the faults stay, so the later rows also show which fault decides.
TEST_F(SimulatorTest, FaultsShowTheirBehaviourOnTheWire) {
  const std::tuple<const char*, const char*, testing::Matcher<const std::string&>> rows[] = {
      {"nack 1", "11,2,a b", "nack"},
      {"nack_always on=0", "0,-1,a 0a:5a:00:00:00:09", "nack"},
      {"radio 1 on=5", "4,-1,a 0a:5a:00:00:00:01", "ack"},
      {"no_peer_line", "5,-1,a b", "02:5a:00:00:00:01,1,0x3,640,320,310,640\n|ack"},
      {"garbage on=1", "1,-1,a b", testing::HasSubstr("\n0a:5a:00:00:00:01,2,3\n," + std::string(1500, 'x'))},
      {"delay 200", ASK_CLIENTS, std::string(CLIENTS_OF_N2) + "|ack"},
      {"trickle 20", ASK_CLIENTS, std::string(CLIENTS_OF_N2) + "|ack"},
      {"cut", ASK_CLIENTS, std::string(CLIENTS_OF_N2, 9)},  // the first half
      {"no_marker", ASK_CLIENTS, CLIENTS_OF_N2},
      {"same_send", ASK_CLIENTS, std::string(CLIENTS_OF_N2) + "ack"},
      {"silent", ASK_CLIENTS, "..."},
      {"refuse", ASK_CLIENTS, "refused"}};
  for (const auto& [fault, line, wire] : rows) {
    ASSERT_EQ(0, sim_.control(std::string("fault n2 ") + fault, &reply_)) << reply_;
    EXPECT_THAT(talk("127.0.7.2", frame(line)), wire) << fault << " / " << line;
  }
  EXPECT_EQ(-1, sim_.rx_pattern("n2"));  // the refused 11,2 set nothing
}

TEST_F(SimulatorTest, DiscoveryFaultsDropRepeatMultiplyOrForgeANodesAnswer) {
  ASSERT_EQ(0, sim_.control("fault n1 eth_lines 2", &reply_));
  ASSERT_EQ(0, sim_.control("fault n2 no_discovery", &reply_));
  ASSERT_EQ(0, sim_.control("fault n3 dup_discovery", &reply_));
  ASSERT_EQ(0, sim_.control("fault n3 claim_mac 0A:5a:00:00:00:01", &reply_));
  unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in self{AF_INET, 0, {}, {}}, to{AF_INET, htons(DISCOVERY_PORT), {}, {}};
  inet_pton(AF_INET, "127.0.7.200", &self.sin_addr);
  inet_pton(AF_INET, "127.0.7.255", &to.sin_addr);
  ASSERT_EQ(0, bind(fd.get(), reinterpret_cast<sockaddr*>(&self), sizeof self));
  timeval limit{1, 0};  // the answers are all in after a quiet second
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sendto(fd.get(), "IP?", 4, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  std::string answers;
  char buf[64];
  for (ssize_t got; (got = recv(fd.get(), buf, sizeof buf, 0)) > 0;)
    answers.append(buf, static_cast<std::size_t>(got)) += " ";
  auto answer = [](char k, const char* mac, char eth) {
    return std::string("127.0.7.") + k + "," + mac + ",1," + eth + " ";
  };
  const std::string forged = answer('3', "0A:5a:00:00:00:01", '0');
  EXPECT_EQ(answer('1', "0a:5a:00:00:00:01", '0') + answer('1', "0a:5a:00:00:00:01", '1') + forged + forged,
            answers);
}

// Over the sockets the windows carry the names, the times and the order of their commands, and
// the record file gets each window once it stopped.
TEST_F(SimulatorTest, MeasurementWindowsRunFromTheFirstStartToTheStop) {
  for (const char* line : {"4,-1,a 0a:5a:00:00:00:01", "8,-1,127.0.7.1 00:00:00:00:00:00"})
    ASSERT_EQ("ack", talk("127.0.7.2", frame(line)));
  ASSERT_EQ("ack", talk("127.0.7.1", frame("8,-1,127.0.7.2 00:00:00:00:00:00")));
  EXPECT_EQ("0a:5a:00:00:00:01,2,0x3,640,320,310,640\n|ack", talk("127.0.7.2", frame("5,-1,a b")));
  std::vector<measure_window> w = sim_.windows();
  ASSERT_EQ(2u, w.size());
  EXPECT_EQ("n2 n1 1 3", w[0].node + " " + w[0].peer + " " + std::to_string(w[0].start_seq) + " " +
                             std::to_string(w[0].stop_seq));
  EXPECT_LE(w[0].start_ms, w[0].stop_ms);
  EXPECT_EQ("n1 n2 2 0 -1", w[1].node + " " + w[1].peer + " " + std::to_string(w[1].start_seq) + " " +
                                std::to_string(w[1].stop_seq) + " " + std::to_string(w[1].stop_ms));
  EXPECT_THAT(window_json(w[0]),
              testing::MatchesRegex("\\{\"t_ms\":[0-9]+,\"source\":\"window\",\"node\":\"n2\",\"peer\":"
                                    "\"n1\",\"peer_mac\":\"0a:5a:00:00:00:01\",\"start_ms\":[0-9]+,"
                                    "\"stop_ms\":[0-9]+,\"start_seq\":1,\"stop_seq\":3,"
                                    "\"gain_db\":0,\"share\":1.000000\\}"));
}

}  // namespace
}  // namespace meshsim

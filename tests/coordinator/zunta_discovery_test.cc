// The discovery exchange against a responder socket on 127.0.2.255:24620 (loopback, delivered as
// unicast), and the parsing of the collected answers into aths.
#include "coordinator/zunta_discovery.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "core/zunta_fd.h"
#include "core/zunta_runtime.h"
#include "core/zunta_time.h"
#include "registry/zunta_ath.h"
#include "support/capture_stdout.h"

namespace {

using lines = std::vector<std::string>;

sockaddr_in loopback(const char* ip, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_pton(AF_INET, ip, &addr.sin_addr);
  return addr;
}

// The coordinator's socket is bound here so that answers can be queued for it before the call.
class DiscoveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (sa_list* head : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                          &c_.module_client_list}) {
      INIT_SA_LIST_HEAD(head);
    }
    sock_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    responder_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int one = 1;
    setsockopt(sock_.get(), SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    timeval silence = zunta_scaled_timeval(2000000);
    setsockopt(sock_.get(), SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
    sockaddr_in peer = loopback("127.0.2.255", 24620);
    socklen_t own_len = sizeof own_;
    ASSERT_EQ(0, bind(sock_.get(), reinterpret_cast<sockaddr*>(&own_), sizeof own_));
    ASSERT_EQ(0, getsockname(sock_.get(), reinterpret_cast<sockaddr*>(&own_), &own_len));
    ASSERT_EQ(0, bind(responder_.get(), reinterpret_cast<sockaddr*>(&peer), sizeof peer));
    c_.sockfd = sock_.get();
    c_.broadcast_addr = peer;
    c_.mesh_pair_count = 3;
  }
  void TearDown() override { zunta_flush_ath(&c_); }
  void answer(const std::string& text) {
    sendto(responder_.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&own_), sizeof own_);
  }

  struct coordinator c_ = {};
  unique_fd sock_, responder_;
  sockaddr_in own_ = loopback("127.0.2.1", 0);
  int32_t new_broadcast_ = 0;
  char buffer_[BROADCAST_BUFFER_SIZE] = {};
};

// Answers are kept in order, one per line; the parse skips malformed lines and known nodes.
TEST_F(DiscoveryTest, RequestAtOnceThenOnlyAfterThePeriod) {
  const lines sent = {"127.0.2.11,AA:BB:CC:DD:EE:01,4,1",
                      "127.0.2.12,aa:bb:cc:dd:ee:02",
                      "no comma",
                      "127.000.002.0013,aa:bb:cc:dd:ee:03,1,1",
                      "127.0.2.11,aa:bb:cc:dd:ee:99,7,1",
                      "127.0.2.11,aa:bb:cc:dd:ee:04,5,2"};
  std::string expected;
  for (const std::string& text : sent) {
    answer(text);
    expected += text + "\n";
  }
  ASSERT_EQ(0, zunta_mesh_nodes_discovery(&c_, &new_broadcast_, buffer_));
  EXPECT_EQ(1, new_broadcast_);
  EXPECT_EQ(0, c_.mesh_pair_count);
  EXPECT_EQ(expected, buffer_);
  zunta_parse_broadcast_message(&c_, buffer_);
  char unterminated[] = "127.0.2.13,aa:bb:cc:dd:ee:05,1,1";
  zunta_parse_broadcast_message(&c_, unterminated);
  lines aths;
  sa_list_for_each_entry(a, &c_.ath_list, ath, list) aths.push_back(a->mac + std::to_string(a->eth_index));
  EXPECT_EQ((lines{"aa:bb:cc:dd:ee:042", "aa:bb:cc:dd:ee:011"}), aths);

  // Within the period (restarted here, however slow this machine): no request, the buffer is
  // cleared and the flag left alone.
  c_.last_broadcast_ms = static_cast<uint32_t>(uptime_ms());
  new_broadcast_ = 0;
  std::memset(buffer_, 'x', sizeof buffer_ - 1);
  ASSERT_EQ(0, zunta_mesh_nodes_discovery(&c_, &new_broadcast_, buffer_));
  EXPECT_EQ(0, new_broadcast_);
  EXPECT_EQ(nullptr, std::memchr(buffer_, 'x', sizeof buffer_));

  // Once the period has passed the request goes out again; nobody answers it.
  c_.last_broadcast_ms -= zunta_scaled_ms(DISCOVERY_PERIOD_MS);
  ASSERT_EQ(0, zunta_mesh_nodes_discovery(&c_, &new_broadcast_, buffer_));
  EXPECT_EQ(1, new_broadcast_);
  EXPECT_STREQ("", buffer_);
  char request[64];
  EXPECT_EQ(4, recv(responder_.get(), request, sizeof request, MSG_DONTWAIT));
  EXPECT_EQ(0, std::memcmp("IP?", request, 4));
  EXPECT_EQ(4, recv(responder_.get(), request, sizeof request, MSG_DONTWAIT));
  EXPECT_EQ(-1, recv(responder_.get(), request, sizeof request, MSG_DONTWAIT));
}

// Full-size answers beyond the collection's capacity are dropped with one error line, and nothing
// is written past the buffer.
TEST_F(DiscoveryTest, AnswersBeyondTheLimitAreDropped) {
  timeval silence{1, 0};  // the sender thread below may be slowed down by a loaded machine
  setsockopt(sock_.get(), SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
  lines answers;
  for (std::size_t i = 0; i < DISCOVERY_MAX_ANSWERS + 8; ++i) {
    std::string text = "127.0.2.30,aa:bb:cc:dd:ee:30,1," + std::to_string(i) + ",";
    answers.push_back(text + std::string(DISCOVERY_ANSWER_SIZE - text.size(), 'p'));
  }
  // Batches of 64, each once the previous one has been read, so none is lost to a full queue.
  std::thread sender([&] {
    for (std::size_t i = 0; i < answers.size(); ++i) {
      pollfd p{sock_.get(), POLLIN, 0};
      for (int wait = 0; i % 64 == 0 && wait < 5000 && poll(&p, 1, 0) > 0; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      answer(answers[i]);
    }
  });
  struct {
    char buffer[BROADCAST_BUFFER_SIZE];
    char guard[64];
  } area;
  std::memset(area.guard, 'g', sizeof area.guard);
  capture_stdout out;
  EXPECT_EQ(0, zunta_mesh_nodes_discovery(&c_, &new_broadcast_, area.buffer));
  sender.join();
  EXPECT_EQ(std::string(sizeof area.guard, 'g'), std::string(area.guard, sizeof area.guard));
  std::string kept;
  for (std::size_t i = 0; i < DISCOVERY_MAX_ANSWERS; ++i)
    kept += answers[i] + "\n";
  EXPECT_EQ(kept, std::string(area.buffer, strnlen(area.buffer, sizeof area.buffer)));
  std::string log = out.text();
  std::size_t error = log.find("ZUNTA: ERROR: ");
  EXPECT_NE(std::string::npos, error);
  EXPECT_EQ(std::string::npos, log.find("ZUNTA: ERROR: ", error + 1));
}

}  // namespace

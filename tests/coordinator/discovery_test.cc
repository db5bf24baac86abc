// The discovery exchange against responder sockets on 127.0.2.x (loopback, a broadcast address
// delivered as unicast), and the parsing of the collected answers into aths.
#include "coordinator/discovery.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "core/clock.h"
#include "core/fd.h"
#include "core/runtime.h"
#include "registry/ath.h"
#include "support/capture_stdout.h"
#include "support/fake_clock.h"

namespace {

using ::testing::HasSubstr;

// What the logger printed while `run` ran.
std::string logged(const std::function<void()>& run) {
  capture_stdout out;
  run();
  return out.text();
}

sockaddr_in loopback(uint32_t host, uint16_t port) {  // 127.0.2.host
  return {AF_INET, htons(port), {htonl(0x7f000200 | host)}, {}};
}

// The coordinator's socket listens on 127.0.2.1 at port+1 and broadcasts to loopback's broadcast
// address 127.255.255.255 (which takes the socket's broadcast option) at port, where `requests_`
// receives the requests; `responder_`, on 127.0.2.255, answers them.
class DiscoveryTest : public ::testing::Test {
 protected:
  void open(uint16_t port) {
    options opts = {0, "127.255.255.255", port, 0, 0, 0};
    ASSERT_EQ(0, zunta_coordinator_init(&c_, &opts));
    sock_.reset(c_.sockfd);
    own_ = loopback(1, port + 1);
    ASSERT_EQ(0, bind(sock_.get(), reinterpret_cast<sockaddr*>(&own_), sizeof own_));
    responder_ = socket_at(255, port);
    requests_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(
        0, bind(requests_.get(), reinterpret_cast<sockaddr*>(&c_.broadcast_addr), sizeof c_.broadcast_addr));
    timeval silence{1, 0};  // the sender threads may be slowed down by a loaded machine
    setsockopt(sock_.get(), SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
    timeval request_wait{30, 0};
    setsockopt(requests_.get(), SOL_SOCKET, SO_RCVTIMEO, &request_wait, sizeof request_wait);
  }
  // Runs `send` once the responder has the request, as a node would; request_size_ is its size.
  std::thread on_request(std::function<void()> send) {
    return std::thread([this, send] {
      request_size_ = recv(requests_.get(), nullptr, 0, MSG_TRUNC);
      send();
    });
  }
  unique_fd socket_at(uint32_t host, uint16_t port) {
    unique_fd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in at = loopback(host, port);
    EXPECT_EQ(0, bind(s.get(), reinterpret_cast<sockaddr*>(&at), sizeof at));
    return s;
  }
  void answer(const unique_fd& from, const std::string& text) {
    sendto(from.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&own_), sizeof own_);
  }
  // A request due at once; the collected answers.
  std::string discover() {
    c_.discovery_started = 0;
    int32_t new_broadcast = 0;
    EXPECT_EQ(0, zunta_mesh_nodes_discovery(&c_, &new_broadcast, buffer_));
    EXPECT_EQ(1, new_broadcast);
    return buffer_;
  }
  std::string aths() {
    std::string text;
    sa_list_for_each_entry(a, &c_.ath_list, ath, list) text += a->mac + std::to_string(a->eth_index) + " ";
    return text;
  }
  void TearDown() override {
    if (sock_.valid()) zunta_flush_ath(&c_);
  }

  struct coordinator c_ = {};
  unique_fd sock_, responder_, requests_;
  sockaddr_in own_{};
  ssize_t request_size_ = -1;
  char buffer_[BROADCAST_BUFFER_SIZE] = {};
};

// Answers are kept in order, one per line, up to the collection's limit, where the collection
// stops (nothing written past the buffer); an answer over 64 bytes is dropped, not cut; the parse
// skips malformed, over-long, out-of-range and known lines; a second call within the period sends
// nothing and only clears the buffer.
TEST_F(DiscoveryTest, OneRequestPerPeriodAndAnswersKeptInOrderUpToTheLimit) {
  open(24620);
  std::string cut = "127.0.2.17,aa:bb:cc:dd:ee:09,1,";  // 65 bytes: eth index 7, or 0 once cut
  cut.append(DISCOVERY_ANSWER_SIZE - cut.size(), '0').append("7");
  std::vector<std::string> answers = {"127.0.2.11,AA:BB:CC:DD:EE:01,4,1",
                                      "127.0.2.12,aa:bb:cc:dd:ee:02",
                                      cut,
                                      "no comma",
                                      "127.000.002.0013,aa:bb:cc:dd:ee:03,1,1",
                                      "127.0.2.11,aa:bb:cc:dd:ee:99,7,1",
                                      "127.0.2.14,aa:bb:cc:dd:ee:06,1,4294967297",
                                      "127.0.2.15,aa:bb:cc:dd:ee:07,-2147483649,3",
                                      "127.0.2.16,aa:bb:cc:dd:ee:08,-2147483648, 2147483647",
                                      "127.0.2.11,aa:bb:cc:dd:ee:04,5,2"};
  while (answers.size() < DISCOVERY_MAX_ANSWERS + 9)  // full-size answers that name no node
    answers.push_back(std::to_string(answers.size()).append(64, 'p').substr(0, DISCOVERY_ANSWER_SIZE));
  std::string kept;
  for (std::size_t i = 0; i <= DISCOVERY_MAX_ANSWERS; ++i)
    kept += answers[i] == cut ? "" : answers[i] + "\n";
  // Batches of 64, each once the previous one has been read, so none is lost to a full queue.
  std::thread sender = on_request([&] {
    for (std::size_t i = 0; i < answers.size(); ++i) {
      pollfd p{sock_.get(), POLLIN, 0};
      for (int wait = 0; i % 64 == 0 && i < DISCOVERY_MAX_ANSWERS && wait < 5000 && poll(&p, 1, 0) > 0;
           ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      answer(responder_, answers[i]);
    }
  });
  char area[BROADCAST_BUFFER_SIZE + 64];  // the buffer and a guard behind it
  auto& buffer = reinterpret_cast<char(&)[BROADCAST_BUFFER_SIZE]>(area);
  std::memset(area, 'g', sizeof area);
  int32_t new_broadcast = 0;
  std::string log = logged([&] { zunta_mesh_nodes_discovery(&c_, &new_broadcast, buffer); });
  sender.join();
  EXPECT_THAT(log, HasSubstr("zunta_mesh_nodes_discovery:"));
  EXPECT_THAT(log, HasSubstr(": Discovery answer of 65 bytes from 127.0.2.255 is longer than 64 bytes"));
  EXPECT_EQ(1, new_broadcast);
  EXPECT_EQ(kept, std::string(buffer, strnlen(buffer, sizeof buffer)));
  EXPECT_EQ(std::string(64, 'g'), std::string(area + sizeof buffer, 64));
  EXPECT_EQ(4, request_size_);                                           // "IP?" and its NUL
  EXPECT_EQ(0, recv(sock_.get(), nullptr, 0, MSG_DONTWAIT | MSG_PEEK));  // the rest left unread
  zunta_parse_broadcast_message(&c_, buffer);
  EXPECT_EQ("aa:bb:cc:dd:ee:042 aa:bb:cc:dd:ee:082147483647 aa:bb:cc:dd:ee:011 ", aths());

  // Within the period (restarted here, however slow this machine): no request, the buffer cleared.
  c_.last_broadcast_ms = static_cast<uint32_t>(uptime_ms());
  std::memset(buffer, 'x', sizeof buffer - 1);
  EXPECT_EQ(0, zunta_mesh_nodes_discovery(&c_, &new_broadcast, buffer));
  EXPECT_EQ(nullptr, std::memchr(buffer, 'x', sizeof buffer));
  EXPECT_EQ(-1, recv(requests_.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC));
}

// Datagrams that came between requests are not answers to the next one, and a host that never
// stops sending does not keep the collection going.
TEST_F(DiscoveryTest, LateDatagramsAndEndlessStreamsAreNotTakenForAnswers) {
  open(24622);
  answer(responder_, "127.0.2.21,aa:bb:cc:dd:ee:21,1,1");
  EXPECT_EQ("", discover());

  constexpr int STREAM_MAX = 10000;  // 20 s and more at one every 2 ms
  std::atomic<bool> stop{false};
  int sent = 0;
  std::thread stream([&] {
    for (; sent < STREAM_MAX && !stop; ++sent) {
      answer(responder_, "127.0.2.22,aa:bb:cc:dd:ee:22,1,1");
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  std::string got;
  std::string log = logged([&] { got = discover(); });
  stop = true;
  stream.join();
  EXPECT_LT(sent, STREAM_MAX);
  EXPECT_EQ(0u, got.find("127.0.2.22,aa:bb:cc:dd:ee:22,1,1\n"));
  EXPECT_THAT(log, HasSubstr("ZUNTA:W:CORE: Discovery stops after 500 ms with "));
}

// With the check, a line naming another address than its datagram's source is dropped, and each
// such sender is reported once per request.
TEST_F(DiscoveryTest, SenderCheckDropsLinesNamingAnotherAddress) {
  open(24624);
  c_.discovery_check_sender = 1;
  unique_fd a = socket_at(41, 24626), b = socket_at(42, 24626);
  std::thread nodes = on_request([&] {
    for (const char* text : {"127.0.2.41,aa:bb:cc:dd:ee:41,1,1", "127.0.2.43,aa:bb:cc:dd:ee:43,1,1",
                             "127.0.2.44,aa:bb:cc:dd:ee:44,1,1"})
      answer(a, text);
    answer(b, "127.0.2.45,mac-45,1,1\n127.0.2.42,mac-42,1,2");
  });
  std::string got;
  std::string log = logged([&] { got = discover(); });
  nodes.join();
  EXPECT_EQ("127.0.2.41,aa:bb:cc:dd:ee:41,1,1\n127.0.2.42,mac-42,1,2\n", got);
  EXPECT_THAT(log,
              HasSubstr("ZUNTA:W:CORE: Discovery answer from 127.0.2.41 names another address (127.0.2.43)"));
  EXPECT_THAT(log,
              HasSubstr("ZUNTA:W:CORE: Discovery answer from 127.0.2.42 names another address (127.0.2.45)"));
  std::size_t warnings = 0;
  for (std::size_t at = log.find(":W:"); at != std::string::npos; at = log.find(":W:", at + 1))
    ++warnings;
  EXPECT_EQ(2u, warnings) << log;
}

// A line counts only with a dotted IPv4 address and a MAC text; a MAC that an earlier line announced
// from another address (in any letter case) is ignored with one warning naming both addresses.
TEST_F(DiscoveryTest, OnlyWellShapedAnswersCountAndAMacBelongsToTheFirstAddressThatAnnouncedIt) {
  open(24628);
  char answers[] =
      "127.0.2.51,aa:bb:cc:dd:ee:51,1,1\n"
      "127.0.2.52,AA:BB:CC:DD:EE:51,1,1\n"  // forged, or the node's second address
      "127.0.2.51,aa:bb:cc:dd:ee:51,1,2\n"  // a second interface of the first address
      "127.0.2.53,\r\x1b[1m:cc:dd:ee:53,1,1\n"
      "127.0.2.54,aa-bb-cc-dd-ee-54,1,1\n"
      "127.0.2.55,aa:bb:cc:dd:ee:5,1,1\n"
      "127.0.2.5x,aa:bb:cc:dd:ee:56,1,1\n"
      "127.0.2.52,aa:bb:cc:dd:ee:57,1,1\n";
  std::string log = logged([&] { zunta_parse_broadcast_message(&c_, answers); });
  EXPECT_EQ("aa:bb:cc:dd:ee:571 aa:bb:cc:dd:ee:512 aa:bb:cc:dd:ee:511 ", aths());
  EXPECT_THAT(log, HasSubstr("ZUNTA:W:CORE: MAC aa:bb:cc:dd:ee:51 announced by 127.0.2.51 and by 127.0.2.52: "
                             "the answer of 127.0.2.52 is ignored\n"));
  EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n')) << log;
}

// The period runs on the monotonic clock: requests keep their rhythm across the wrap of the signed
// 32-bit uptime (after 24.8 days) and when the time of day is set back by a day.
TEST(DiscoveryClockTest, OneRequestPerPeriodAcrossTheUptimeWrapAndAClockSetBackADay) {
  fake_clock clock;
  struct coordinator c = {};
  options opts = {0, "127.0.2.255", 24630, 0, 0};
  ASSERT_EQ(0, zunta_coordinator_init(&c, &opts));
  unique_fd sock(c.sockfd), counter(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, bind(counter.get(), reinterpret_cast<sockaddr*>(&c.broadcast_addr), sizeof c.broadcast_addr));
  const int64_t period = zunta_scaled_ms(DISCOVERY_PERIOD_MS);
  const int64_t second = period / 60;
  // The uptime wraps just before check 120.
  clock.advance_ms(INT32_MAX - static_cast<int64_t>(uptime_ms()) - 120 * second + second / 2);
  static char buffer[BROADCAST_BUFFER_SIZE];
  std::vector<int> requests;
  for (int check = 0; check < 250; ++check) {
    if (check == 130) clock.set_wall_by_ms(-86400000);
    int32_t new_broadcast = 0;
    ASSERT_EQ(0, zunta_mesh_nodes_discovery(&c, &new_broadcast, buffer));
    if (recv(counter.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) == 4) requests.push_back(check);
    clock.advance_ms(second);
  }
  EXPECT_EQ((std::vector<int>{0, 60, 120, 180, 240}), requests);
  EXPECT_LT(uptime_ms(), 0) << "the uptime has wrapped";
}

// The period is 60000 ms on the target (scaled here): a request exactly one period after the last
// goes out, one millisecond earlier it does not; the clock may wrap in between.
TEST_F(DiscoveryTest, RequestIsDueOnceTheWholePeriodHasPassed) {
  EXPECT_TRUE(zunta_discovery_due(&c_, 5));  // nothing sent yet
  c_.discovery_started = 1;
  c_.last_broadcast_ms = 0xfffff000u;
  const uint32_t period = zunta_scaled_ms(DISCOVERY_PERIOD_MS);
  EXPECT_FALSE(zunta_discovery_due(&c_, c_.last_broadcast_ms + period - 1));
  EXPECT_TRUE(zunta_discovery_due(&c_, c_.last_broadcast_ms + period));
}

}  // namespace

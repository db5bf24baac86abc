// The discovery exchange against a responder socket on 127.0.2.255:24620 (loopback, delivered as
// unicast), and the parsing of the collected answers into aths.
#include "coordinator/discovery.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "core/clock.h"
#include "core/fd.h"
#include "core/runtime.h"
#include "registry/ath.h"

// Answers are kept in order, one per line, up to the collection's capacity (later ones dropped,
// nothing written past the buffer); the parse skips malformed, over-long and known lines; a second
// call within the period sends nothing and only clears the buffer.
TEST(DiscoveryTest, OneRequestPerPeriodAndAnswersKeptInOrderUpToTheLimit) {
  struct coordinator c = {};
  options opts = {0, "127.0.2.255", 24620, 0, 0};
  ASSERT_EQ(0, zunta_coordinator_init(&c, &opts));
  unique_fd sock(c.sockfd), responder(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in own = {AF_INET, htons(24621), {htonl(0x7f000201)}, {}};  // 127.0.2.1
  auto* to = reinterpret_cast<sockaddr*>(&own);
  ASSERT_EQ(0, bind(sock.get(), to, sizeof own));
  ASSERT_EQ(0, bind(responder.get(), reinterpret_cast<sockaddr*>(&c.broadcast_addr), sizeof own));
  timeval silence{1, 0};  // the sender thread below may be slowed down by a loaded machine
  setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);

  std::vector<std::string> answers = {"127.0.2.11,AA:BB:CC:DD:EE:01,4,1",
                                      "127.0.2.12,aa:bb:cc:dd:ee:02",
                                      "no comma",
                                      "127.000.002.0013,aa:bb:cc:dd:ee:03,1,1",
                                      "127.0.2.11,aa:bb:cc:dd:ee:99,7,1",
                                      "127.0.2.11,aa:bb:cc:dd:ee:04,5,2"};
  while (answers.size() < DISCOVERY_MAX_ANSWERS + 8)  // full-size answers that name no node
    answers.push_back(std::to_string(answers.size()).append(64, 'p').substr(0, DISCOVERY_ANSWER_SIZE));
  std::string kept;
  for (std::size_t i = 0; i < DISCOVERY_MAX_ANSWERS; ++i)
    kept += answers[i] + "\n";
  // Batches of 64, each once the previous one has been read, so none is lost to a full queue.
  std::thread sender([&] {
    for (std::size_t i = 0; i < answers.size(); ++i) {
      pollfd p{sock.get(), POLLIN, 0};
      for (int wait = 0; i % 64 == 0 && wait < 5000 && poll(&p, 1, 0) > 0; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      sendto(responder.get(), answers[i].data(), answers[i].size(), 0, to, sizeof own);
    }
  });
  char area[BROADCAST_BUFFER_SIZE + 64];  // the buffer and a guard behind it
  auto& buffer = reinterpret_cast<char(&)[BROADCAST_BUFFER_SIZE]>(area);
  std::memset(area, 'g', sizeof area);
  int32_t new_broadcast = 0;
  EXPECT_EQ(0, zunta_mesh_nodes_discovery(&c, &new_broadcast, buffer));
  sender.join();
  EXPECT_EQ(1, new_broadcast);
  EXPECT_EQ(kept, std::string(buffer, strnlen(buffer, sizeof buffer)));
  EXPECT_EQ(std::string(64, 'g'), std::string(area + sizeof buffer, 64));
  EXPECT_EQ(4, recv(responder.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC));  // "IP?" and its NUL
  zunta_parse_broadcast_message(&c, buffer);
  std::string aths;
  sa_list_for_each_entry(a, &c.ath_list, ath, list) aths += a->mac + std::to_string(a->eth_index) + " ";
  EXPECT_EQ("aa:bb:cc:dd:ee:042 aa:bb:cc:dd:ee:011 ", aths);
  zunta_flush_ath(&c);

  // Within the period (restarted here, however slow this machine): no request, the buffer cleared.
  c.last_broadcast_ms = static_cast<uint32_t>(uptime_ms());
  std::memset(buffer, 'x', sizeof buffer - 1);
  EXPECT_EQ(0, zunta_mesh_nodes_discovery(&c, &new_broadcast, buffer));
  EXPECT_EQ(nullptr, std::memchr(buffer, 'x', sizeof buffer));
  EXPECT_EQ(-1, recv(responder.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC));
}

// The period is 60000 ms on the target (scaled here): a request exactly one period after the last
// goes out, one millisecond earlier it does not; the clock may wrap in between.
TEST(DiscoveryTest, RequestIsDueOnceTheWholePeriodHasPassed) {
  struct coordinator c = {};
  EXPECT_TRUE(zunta_discovery_due(&c, 5));  // nothing sent yet
  c.discovery_started = 1;
  c.last_broadcast_ms = 0xfffff000u;
  const uint32_t period = zunta_scaled_ms(DISCOVERY_PERIOD_MS);
  EXPECT_FALSE(zunta_discovery_due(&c, c.last_broadcast_ms + period - 1));
  EXPECT_TRUE(zunta_discovery_due(&c, c.last_broadcast_ms + period));
}

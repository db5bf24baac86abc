// A scripted node agent on one loopback address, in a thread. Per connection: read the whole
// 1024-byte command, then send that connection's chunks a pause apart, so each lands in its own
// read. With chunks it then closes; with none it stays silent until the peer hangs up.
// Connections beyond the script reuse its last entry. Agents given one barrier hold every answer
// until all of them have received a command (or the barrier's limit passes). An agent told to
// vanish closes its listener on its last connection, so later connections are refused.
#ifndef ZUNTA_TESTS_SUPPORT_FAKE_AGENT_H_
#define ZUNTA_TESTS_SUPPORT_FAKE_AGENT_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/fd.h"

class agent_barrier {
 public:
  explicit agent_barrier(int parties) : parties_(parties) {}
  // Counts this arrival and waits for the others, at most 2 s. False when they did not all come.
  bool arrive_and_wait();

 private:
  std::mutex mutex_;
  std::condition_variable all_;
  int parties_;
  int arrived_ = 0;
};

class fake_agent {
 public:
  using script = std::vector<std::vector<std::string>>;  // one entry per connection
  // Long enough for the reader to take the text before the marker comes, short enough to stay well
  // inside the 150 ms read time-out of the tests.
  static constexpr int CHUNK_GAP_MS = 50;

  // bind + listen; thread only if both worked
  fake_agent(const char* ip, uint16_t port, script replies, std::shared_ptr<agent_barrier> barrier = nullptr);
  ~fake_agent() { stop(); }
  fake_agent(const fake_agent&) = delete;
  fake_agent& operator=(const fake_agent&) = delete;

  bool running() const { return thread_.joinable(); }
  void stop();
  // The agent goes away once it has taken this many connections (set before the first one).
  void vanish_after(std::size_t connections) { vanish_after_ = connections; }
  // Text before '\n' of every command received, in order.
  std::vector<std::string> commands() const;
  // The raw bytes of every command received.
  std::vector<std::string> frames() const;

 private:
  void serve();
  void answer(int fd, const std::vector<std::string>& chunks);

  unique_fd listener_;
  script replies_;
  std::shared_ptr<agent_barrier> barrier_;
  mutable std::mutex mutex_;
  std::vector<std::string> frames_;
  std::atomic<bool> stopping_{false};
  std::atomic<std::size_t> vanish_after_{SIZE_MAX};
  std::thread thread_;
};

#endif  // ZUNTA_TESTS_SUPPORT_FAKE_AGENT_H_

// A batch of command 5 exchanges against agents that send a statistics line, then their marker
// 50 ms later: the batch takes about one gap whatever its size, one after the other takes one gap
// per agent. Agents listen on 127.0.91.1 to 127.0.91.80, port 25492 (loopback only).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commander/transport.h"
#include "core/fd.h"
#include "core/log.h"
#include "core/runtime.h"

namespace {

constexpr int AGENTS = 80;
constexpr uint16_t PORT = 25492;
constexpr auto MARKER_GAP = std::chrono::milliseconds(50);

std::string agent_ip(int i) {
  return "127.0.91." + std::to_string(i + 1);
}

// One agent: reads each 1024-byte command, answers a line, waits the gap, acknowledges.
class slow_marker_agent {
 public:
  explicit slow_marker_agent(const std::string& ip) {
    listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int one = 1;
    setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(PORT);
    inet_pton(AF_INET, ip.c_str(), &addr.sin_addr);
    if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener_.get(), 8) != 0)
      std::abort();
    thread_ = std::thread([this] { serve(); });
  }
  ~slow_marker_agent() {
    stopping_ = true;
    thread_.join();
  }

 private:
  void serve() {
    while (!stopping_) {
      pollfd p{listener_.get(), POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      unique_fd conn(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      char frame[COMMAND_SIZE];
      if (recv(conn.get(), frame, sizeof frame, MSG_WAITALL) != sizeof frame) continue;
      const char line[] = "aa:bb:cc:dd:ee:02,2,0x1,41000,900,880,40000\n";
      send(conn.get(), line, sizeof line - 1, MSG_NOSIGNAL);
      std::this_thread::sleep_for(MARKER_GAP);
      send(conn.get(), "ack", 3, MSG_NOSIGNAL);
    }
  }
  unique_fd listener_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

std::vector<std::unique_ptr<slow_marker_agent>>& agents() {
  static std::vector<std::unique_ptr<slow_marker_agent>> all = [] {
    std::vector<std::unique_ptr<slow_marker_agent>> made;
    for (int i = 0; i < AGENTS; ++i)
      made.push_back(std::make_unique<slow_marker_agent>(agent_ip(i)));
    return made;
  }();
  return all;
}

void BM_CommandFiveBatch(benchmark::State& state) {
  agents();
  const int n = static_cast<int>(state.range(0));
  std::vector<std::string> ips;
  for (int i = 0; i < n; ++i)
    ips.push_back(agent_ip(i));
  std::vector<zunta_command_job> jobs(n);
  for (auto _ : state) {
    for (int i = 0; i < n; ++i)
      jobs[i] = {CMD_STOP_TRAINING, -1, PLACEHOLDER_IP, ZERO_MAC, ips[i].c_str(), {}, {}, -1, {}};
    zunta_make_and_send_commands(jobs.data(), jobs.size());
    for (const zunta_command_job& job : jobs)
      if (job.result != 0) state.SkipWithError("an exchange failed");
  }
}
BENCHMARK(BM_CommandFiveBatch)->Arg(1)->Arg(8)->Arg(80)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CommandFiveOneAfterTheOther(benchmark::State& state) {
  agents();
  const int n = static_cast<int>(state.range(0));
  char buffer[COMMAND_SIZE] = {};
  for (auto _ : state) {
    for (int i = 0; i < n; ++i) {
      char answer[ANSWER_SIZE] = {};
      std::string ip = agent_ip(i);
      if (zunta_make_and_send_command(buffer, CMD_STOP_TRAINING, -1, PLACEHOLDER_IP, ZERO_MAC, answer,
                                      ip.c_str()) != 0)
        state.SkipWithError("an exchange failed");
    }
  }
}
BENCHMARK(BM_CommandFiveOneAfterTheOther)->Arg(8)->Arg(80)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  setenv("ZUNTA_AGENT_PORT", std::to_string(PORT).c_str(), 1);
  char error[128];
  if (zunta_runtime_init(error, sizeof error) != 0) return 2;
  log_init(LVL_U, -1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  agents().clear();
  return 0;
}

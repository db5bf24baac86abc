// A simulated mesh in this process and the built daemon as a child, on a loopback range of the
// scenario's own (127.1.N.x, ports 25000+N and 25100+N), so scenarios run in parallel.
#ifndef ZUNTA_TESTS_E2E_E2E_FIXTURE_H_
#define ZUNTA_TESTS_E2E_E2E_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "meshsim/simulator.h"
#include "support/daemon_process.h"
#include "support/test_env.h"

constexpr int E2E_WAIT_MS = 120000;  // generous: the machine may be loaded; nothing is timed
// The agents' pause between answer text and its marker. The daemon drops text that arrives in the
// same read as the marker, so the pause must outlast the daemon's way to its next read even on a
// loaded machine: a few milliseconds do not.
constexpr int E2E_MARKER_GAP_MS = 50;

// The daemon's time scale: by default a 6-s round in 300 ms and the shortest socket time-out (the
// 2-s discovery receive) at 100 ms, the least a loaded two-core machine keeps without spurious
// time-outs. ZUNTA_E2E_TIME_SCALE may set it higher for a slower machine or emulator.
inline double e2e_time_scale() {
  const char* value = std::getenv("ZUNTA_E2E_TIME_SCALE");
  const double scale = value != nullptr ? std::atof(value) : 0.0;
  return scale >= 0.05 && scale <= 1.0 ? scale : 0.05;
}

// One agent command as the simulator recorded it.
struct seen_command {
  std::string node;
  std::string line;
  bool operator==(const seen_command& o) const { return node == o.node && line == o.line; }
};
inline std::ostream& operator<<(std::ostream& os, const seen_command& c) {
  return os << c.node << ": " << c.line;
}

// One simulated mesh and one daemon run against it.
class mesh_run {
 public:
  // Starts the simulator with `topology` (written on 127.0.60.x, moved to 127.1.N.x); `conf` adds
  // lines to the daemon's configuration.
  void start_mesh(int range, const std::string& topology, int marker_gap_ms = E2E_MARKER_GAP_MS,
                  const std::string& conf = "") {
    range_ = range;
    meshsim::sim_config config;
    config.topology = topology;
    config.relocate_base = "127.1." + std::to_string(range);
    config.agent_port = static_cast<uint16_t>(25000 + range);
    config.discovery_address = config.relocate_base + ".255";
    config.discovery_port = static_cast<uint16_t>(25100 + range);
    config.marker_gap_ms = marker_gap_ms;
    config.log = false;
    std::string error;
    ASSERT_EQ(0, sim_.start(config, &error)) << error;
    dir_ = test_dir() + "/e2e-" + std::to_string(range);
    ASSERT_EQ(0, std::system(("mkdir -p " + dir_).c_str()));
    write_file(dir_ + "/zunta.conf", "root=true\nbroadcast_address=" + config.discovery_address +
                                         "\nbroadcast_port=" + std::to_string(config.discovery_port) + "\n" +
                                         conf);
  }

  // `wrapper` runs the daemon (prlimit and its options, say).
  void start_daemon(std::vector<std::string> args, double time_scale = e2e_time_scale(),
                    std::vector<std::string> wrapper = {}) {
    args.insert(args.begin(), daemon_path());
    args.insert(args.begin(), wrapper.begin(), wrapper.end());
    daemon_ = std::make_unique<daemon_process>(
        args, std::vector<std::string>{"ZUNTA_CONF=" + dir_ + "/zunta.conf", "ZUNTA_SNAPSHOT=" + snapshot(),
                                       "ZUNTA_STATUS_JSON=" + dir_ + "/zunta-status.json",
                                       "ZUNTA_DUMP_FILE=" + dir_ + "/dump.log",
                                       "ZUNTA_TRAINING_STATUS_FILE=" + dir_ + "/status.log",
                                       "ZUNTA_AGENT_PORT=" + std::to_string(25000 + range_),
                                       "ZUNTA_TIME_SCALE=" + std::to_string(time_scale)});
    ASSERT_TRUE(daemon_->started());
  }

  std::string snapshot() const { return dir_ + "/zunta-sa.log"; }
  std::string ip(int host) const { return "127.1." + std::to_string(range_) + "." + std::to_string(host); }

  // The agent commands recorded so far, in order, optionally only those with the given indexes.
  std::vector<seen_command> commands(std::vector<int> indexes = {}) const {
    std::vector<seen_command> out;
    for (const meshsim::command_record& r : sim_.records()) {
      if (r.source != "agent") continue;
      if (!indexes.empty() && std::find(indexes.begin(), indexes.end(), r.index) == indexes.end()) continue;
      out.push_back({r.node, r.line});
    }
    return out;
  }

  // Waits until `count` commands with this index reached `node` (any node when empty).
  bool wait_commands(const std::string& node, int index, std::size_t count) {
    return sim_.wait_for_commands(node, index, count, E2E_WAIT_MS);
  }

  // Waits until the status file satisfies `ready` (it is rewritten several times per cycle).
  bool wait_snapshot(const std::function<bool(const std::string&)>& ready) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(E2E_WAIT_MS);
    while (!ready(read_file(snapshot()))) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  int range_ = 0;
  std::string dir_;
  meshsim::mesh_simulator sim_;
  std::unique_ptr<daemon_process> daemon_;
};

class MeshScenario : public ::testing::Test, public mesh_run {};

inline int count_of(const std::string& text, const std::string& what) {
  int n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}

#endif  // ZUNTA_TESTS_E2E_E2E_FIXTURE_H_

// The mesh simulator: one TCP agent per node, the discovery responder and the control socket,
// all served by one poll loop on a background thread. The public methods are safe to call from
// any thread while the loop runs.
#ifndef ZUNTA_MESHSIM_SIMULATOR_H_
#define ZUNTA_MESHSIM_SIMULATOR_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <poll.h>

#include "core/fd.h"
#include "meshsim/agent.h"
#include "meshsim/recorder.h"
#include "meshsim/topology.h"

namespace meshsim {

constexpr uint16_t DEFAULT_AGENT_PORT = 12458;
constexpr uint16_t DEFAULT_DISCOVERY_PORT = 12101;
constexpr char DEFAULT_DISCOVERY_ADDRESS[] = "127.255.255.255";
constexpr int DEFAULT_MARKER_GAP_MS = 50;
constexpr int DEFAULT_FRAME_TIMEOUT_MS = 3000;

struct sim_config {
  std::string topology;       // topology text (the statements of a topology file)
  std::string relocate_base;  // "127.A.B": node IPs moved into 127.A.B.x; empty keeps them
  uint16_t agent_port = DEFAULT_AGENT_PORT;
  bool discovery = true;  // false: no discovery responder
  std::string discovery_address = DEFAULT_DISCOVERY_ADDRESS;
  uint16_t discovery_port = DEFAULT_DISCOVERY_PORT;
  int marker_gap_ms = DEFAULT_MARKER_GAP_MS;        // pause between answer text and "ack"
  int frame_timeout_ms = DEFAULT_FRAME_TIMEOUT_MS;  // a frame not complete by then is refused
  int64_t seed = -1;                                // 0 or more overrides the topology's seed
  std::string record_path;                          // JSON lines record; empty for none
  std::string control_path;                         // Unix stream socket for control lines; empty for none
  bool log = true;                                  // refusals and oddities on stderr
};

// A copy of what a node's agent has been told, for tests.
struct node_view {
  std::string name, ip, mac;
  std::vector<pattern_entry> tx_patterns;  // patterns set by commands 2 and 10, peer MACs lower case
  int rx_pattern = -1;                     // -1 until command 11
  std::string fallback;                    // last fallback text of command 2
  std::vector<std::string> learned_macs;   // command 0, in order
  int optimisations = 0;                   // command 6 count
  bool listening = false;
};

class mesh_simulator {
 public:
  mesh_simulator() = default;
  ~mesh_simulator();
  mesh_simulator(const mesh_simulator&) = delete;
  mesh_simulator& operator=(const mesh_simulator&) = delete;

  // Loads the topology, opens every socket and starts the loop. Returns 0, or -1 with the reason
  // in *error (bad topology, an address or port that cannot be bound); nothing runs on -1.
  int start(const sim_config& config, std::string* error);
  // Stops the loop and closes every socket; the records stay readable. Safe to call twice.
  void stop();
  bool running() const { return thread_.joinable(); }

  // Applies one control line (a topology statement, "del ...", or "show NAME"). Returns 0, or -1
  // with the reason in *reply; "show" puts the node's state in *reply. Once it returns, listeners
  // match the new topology.
  int control(const std::string& line, std::string* reply);

  std::vector<command_record> records() const { return records_.copy(); }
  // Measurement windows: the stopped ones in the order they stopped, then the open ones (stop_ms -1,
  // stop_seq 0). windows_overlap() ("meshsim/interference.h") tells whether two of them overlapped.
  std::vector<measure_window> windows() const;
  void clear_records() { records_.clear(); }  // and the stopped windows
  bool wait_for(const record_predicate& pred, int timeout_ms) const {
    return records_.wait_for(pred, timeout_ms);
  }
  // Waits until `count` agent records with command index `index` exist (for node `node`, or any
  // node when empty).
  bool wait_for_commands(const std::string& node, int index, std::size_t count, int timeout_ms) const;

  // State of a node's agent; false when there is no such node.
  bool node_state(const std::string& name, node_view* out) const;
  // The node's pattern towards a peer MAC (the default 3 when never set); -1 for an unknown node.
  int tx_pattern(const std::string& name, const std::string& peer_mac) const;
  int rx_pattern(const std::string& name) const;        // -1 unset or unknown node
  std::string fallback(const std::string& name) const;  // empty when none
  // Whether the pairs a1-a2 and b1-b2 (node names) are within two hops in the current topology, as
  // the interference model decides it; false when a name is unknown.
  bool pairs_within_two_hops(const std::string& a1, const std::string& a2, const std::string& b1,
                             const std::string& b2) const;

 private:
  struct listener {
    std::string node, ip;
    unique_fd fd;
  };
  struct connection {
    enum class phase { reading, answering, holding } state = phase::reading;
    unique_fd fd;
    std::string node, ip;
    std::string frame;
    int64_t deadline_ms = 0;  // end of the frame read, or of the current wait step
    std::vector<step> steps;
    std::size_t next_step = 0;
    std::string out;  // bytes of the current send step not yet written
    bool waiting = false;
    bool done = false;
  };
  struct control_client {
    unique_fd fd;
    std::string in;
    bool done = false;
  };
  struct discovery_job {
    sockaddr_in to{};
    std::vector<std::pair<std::string, std::string>> answers;  // source IP, text
    std::size_t next = 0;
    int64_t next_ms = 0;
  };

  int open_sockets(std::string* error);
  void loop();
  void serve_polled(const std::vector<pollfd>& fds);
  void reconcile_listeners();
  int apply_control(const std::string& line, std::string* reply, bool* changed);
  void wake();
  int64_t now_ms() const;
  void note(const char* format, ...) const __attribute__((format(printf, 2, 3)));

  // Agents (sim_agents.cc).
  void accept_agents(listener& l);
  void serve_connection(connection& c, short revents);
  void read_frame(connection& c);
  void answer_frame(connection& c);
  void run_steps(connection& c);
  void refuse_frame(connection& c, const char* why);
  void record(const connection& c, const std::string& line, const command_line* cmd,
              const std::string& answer);

  // Discovery and control (sim_discovery.cc).
  void read_discovery();
  void send_discovery_answers();
  void accept_control();
  void serve_control(control_client& c);

  sim_config config_;
  mutable std::mutex mutex_;  // guards topo_, rng_ and the change counters
  topology topo_;
  uint64_t rng_ = 0;
  uint64_t change_gen_ = 0;
  uint64_t reconciled_gen_ = 0;
  std::condition_variable reconciled_;
  recorder records_;

  // Owned by the loop thread once it runs.
  std::vector<std::unique_ptr<listener>> listeners_;
  std::vector<std::unique_ptr<connection>> connections_;
  std::vector<std::unique_ptr<control_client>> control_clients_;
  std::deque<discovery_job> discovery_jobs_;
  unique_fd udp_, udp_out_, control_, wake_read_, wake_write_;
  int64_t start_ms_ = 0;

  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_SIMULATOR_H_

// The simulator's life cycle, its poll loop, run-time control and the state read by tests.
#include "meshsim/simulator.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>

#include "meshsim/faults.h"
#include "meshsim/interference.h"
#include "meshsim/net.h"

namespace meshsim {
namespace {

constexpr int CONTROL_WAIT_MS = 5000;  // how long control() waits for the loop to follow a change
constexpr int IDLE_POLL_MS = 1000;

int64_t steady_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

node_view view_of(const node& n) {
  node_view v;
  v.name = n.name;
  v.ip = n.ip;
  v.mac = n.mac;
  v.tx_patterns = n.tx_patterns;
  v.rx_pattern = n.rx_pattern;
  v.fallback = n.fallback;
  v.learned_macs = n.learned_macs;
  v.optimisations = n.optimisations;
  return v;
}

std::string show(const node_view& v) {
  std::string text = v.name + " " + v.ip + " " + v.mac + " listening=" + (v.listening ? "yes" : "no");
  text += " rx=" + std::to_string(v.rx_pattern) + " fallback=" + (v.fallback.empty() ? "-" : v.fallback);
  text += " optimisations=" + std::to_string(v.optimisations) + " tx=";
  for (const pattern_entry& e : v.tx_patterns)
    text += e.peer_mac + "=" + std::to_string(e.pattern) + ",";
  if (text.back() == ',') text.pop_back();
  return text;
}

}  // namespace

mesh_simulator::~mesh_simulator() {
  stop();
}

int mesh_simulator::start(const sim_config& config, std::string* error) {
  if (running()) {
    *error = "already running";
    return -1;
  }
  config_ = config;
  topo_ = topology();
  records_.clear();
  std::string text = config.topology;
  if (!config.relocate_base.empty() && relocate_topology(config.topology, config.relocate_base, &text) != 0) {
    *error = "bad relocation base " + config.relocate_base + " (expected 127.A.B)";
    return -1;
  }
  if (load_topology(topo_, text, error) != 0) return -1;
  if (config.seed >= 0) topo_.seed = static_cast<uint64_t>(config.seed);
  rng_ = topo_.seed;
  if (!config.record_path.empty() && records_.open(config.record_path, error) != 0) return -1;
  if (open_sockets(error) != 0) return -1;
  start_ms_ = steady_ms();
  stopping_ = false;
  thread_ = std::thread(&mesh_simulator::loop, this);
  return 0;
}

int mesh_simulator::open_sockets(std::string* error) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_NONBLOCK | O_CLOEXEC) != 0) {
    *error = "pipe";
    return -1;
  }
  wake_read_.reset(pipe_fds[0]);
  wake_write_.reset(pipe_fds[1]);
  if (config_.discovery) {
    udp_ = udp_bound(config_.discovery_address, config_.discovery_port, error);
    if (!udp_.valid()) return -1;
    udp_out_ = udp_sender(error);
    if (!udp_out_.valid()) return -1;
  }
  if (!config_.control_path.empty()) {
    control_ = unix_listener(config_.control_path, error);
    if (!control_.valid()) return -1;
  }
  reconcile_listeners();
  for (const node& n : topo_.nodes) {
    bool refused = find_fault(n, fault_kind::refuse, -1) != nullptr;
    bool bound =
        std::any_of(listeners_.begin(), listeners_.end(), [&](const auto& l) { return l->node == n.name; });
    if (!refused && !bound) {
      *error = "cannot listen for node " + n.name + " on " + n.ip + ":" + std::to_string(config_.agent_port);
      listeners_.clear();
      return -1;
    }
  }
  return 0;
}

void mesh_simulator::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  wake();
  thread_.join();
  connections_.clear();
  control_clients_.clear();
  listeners_.clear();
  discovery_jobs_.clear();
  udp_.reset();
  udp_out_.reset();
  if (control_.valid()) {
    control_.reset();
    unlink(config_.control_path.c_str());
  }
}

void mesh_simulator::wake() {
  char one = 1;
  if (wake_write_.valid()) (void)!write(wake_write_.get(), &one, 1);
}

int64_t mesh_simulator::now_ms() const {
  return steady_ms();
}

void mesh_simulator::note(const char* format, ...) const {
  if (!config_.log) return;
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::fprintf(stderr, "zunta-meshsim: %s\n", text);
}

// Opens a listener for every node that should have one, closes the others. Loop thread only (or
// before the loop starts), with mutex_ held.
void mesh_simulator::reconcile_listeners() {
  for (auto it = listeners_.begin(); it != listeners_.end();) {
    const node* n = topo_.find((*it)->node);
    bool keep = n != nullptr && n->ip == (*it)->ip && find_fault(*n, fault_kind::refuse, -1) == nullptr;
    it = keep ? it + 1 : listeners_.erase(it);
  }
  for (const node& n : topo_.nodes) {
    if (find_fault(n, fault_kind::refuse, -1) != nullptr) continue;
    if (std::any_of(listeners_.begin(), listeners_.end(), [&](const auto& l) { return l->node == n.name; }))
      continue;
    std::string why;
    unique_fd fd = tcp_listener(n.ip, config_.agent_port, &why);
    if (!fd.valid()) {
      note("node %s: %s", n.name.c_str(), why.c_str());
      continue;
    }
    auto l = std::make_unique<listener>();
    l->node = n.name;
    l->ip = n.ip;
    l->fd = std::move(fd);
    listeners_.push_back(std::move(l));
  }
}

int mesh_simulator::control(const std::string& line, std::string* reply) {
  std::unique_lock<std::mutex> lock(mutex_);
  bool changed = false;
  int result = apply_control(line, reply, &changed);
  if (result != 0 || !changed) return result;
  uint64_t gen = ++change_gen_;
  if (!running() || std::this_thread::get_id() == thread_.get_id()) {
    reconcile_listeners();
    reconciled_gen_ = gen;
    return 0;
  }
  wake();
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(CONTROL_WAIT_MS);
  if (!reconciled_.wait_until(lock, until, [&] { return reconciled_gen_ >= gen; })) {
    *reply = "the simulator loop did not follow the change";
    return -1;
  }
  return 0;
}

int mesh_simulator::apply_control(const std::string& line, std::string* reply, bool* changed) {
  *changed = false;
  char name[64];
  if (std::sscanf(line.c_str(), " show %63s", name) == 1) {
    node_view v;
    const node* n = topo_.find(name);
    if (n == nullptr) {
      *reply = std::string("unknown node ") + name;
      return -1;
    }
    v = view_of(*n);
    v.listening =
        std::any_of(listeners_.begin(), listeners_.end(), [&](const auto& l) { return l->node == v.name; });
    *reply = show(v);
    return 0;
  }
  reply->clear();
  if (apply_statement(topo_, line, reply) != 0) return -1;
  *changed = true;
  return 0;
}

// Poll set: wake pipe, discovery, control listener, then agent listeners, agent connections and
// control clients. Control lines may change the listeners, so control clients are served last.
void mesh_simulator::loop() {
  std::vector<pollfd> fds;
  while (!stopping_) {
    fds.clear();
    fds.push_back(pollfd{wake_read_.get(), POLLIN, 0});
    fds.push_back(pollfd{udp_.get(), POLLIN, 0});
    fds.push_back(pollfd{control_.get(), POLLIN, 0});
    int64_t next = now_ms() + IDLE_POLL_MS;
    for (const auto& l : listeners_)
      fds.push_back(pollfd{l->fd.get(), POLLIN, 0});
    for (const auto& c : connections_) {
      short events = c->state == connection::phase::answering ? (c->waiting ? 0 : POLLOUT) : POLLIN;
      fds.push_back(pollfd{c->fd.get(), events, 0});
      if (c->state != connection::phase::holding) next = std::min(next, c->deadline_ms);
    }
    for (const auto& c : control_clients_)
      fds.push_back(pollfd{c->fd.get(), POLLIN, 0});
    if (!discovery_jobs_.empty()) next = std::min(next, discovery_jobs_.front().next_ms);
    int timeout = static_cast<int>(std::max<int64_t>(0, next - now_ms()));
    if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) break;

    std::lock_guard<std::mutex> lock(mutex_);
    char sink[64];
    while (read(wake_read_.get(), sink, sizeof sink) > 0) {
    }
    if (reconciled_gen_ != change_gen_) {
      reconcile_listeners();
      reconciled_gen_ = change_gen_;
      reconciled_.notify_all();
      continue;  // the poll set is stale; its events are still pending for the next round
    }
    serve_polled(fds);
  }
}

void mesh_simulator::serve_polled(const std::vector<pollfd>& fds) {
  if (fds[1].revents != 0) read_discovery();
  std::size_t i = 3;
  std::size_t listener_count = listeners_.size();
  std::size_t connection_count = connections_.size();
  std::size_t client_count = control_clients_.size();
  for (std::size_t k = 0; k < listener_count; ++k, ++i) {
    if (fds[i].revents != 0) accept_agents(*listeners_[k]);
  }
  // Connections accepted just now come after the polled ones and have no events yet.
  for (std::size_t k = 0; k < connections_.size(); ++k) {
    serve_connection(*connections_[k], k < connection_count ? fds[i + k].revents : 0);
  }
  i += connection_count;
  send_discovery_answers();
  for (std::size_t k = 0; k < client_count; ++k, ++i) {
    if (fds[i].revents != 0) serve_control(*control_clients_[k]);
  }
  if (fds[2].revents != 0) accept_control();
  auto gone = [](const auto& c) { return c->done; };
  connections_.erase(std::remove_if(connections_.begin(), connections_.end(), gone), connections_.end());
  control_clients_.erase(std::remove_if(control_clients_.begin(), control_clients_.end(), gone),
                         control_clients_.end());
}

bool mesh_simulator::wait_for_commands(const std::string& node, int index, std::size_t count,
                                       int timeout_ms) const {
  return records_.wait_for(
      [&](const std::vector<command_record>& records) {
        std::size_t seen = 0;
        for (const command_record& r : records) {
          if (r.source == "agent" && r.index == index && (node.empty() || r.node == node)) ++seen;
        }
        return seen >= count;
      },
      timeout_ms);
}

bool mesh_simulator::node_state(const std::string& name, node_view* out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const node* n = topo_.find(name);
  if (n == nullptr) return false;
  *out = view_of(*n);
  out->listening = find_fault(*n, fault_kind::refuse, -1) == nullptr;
  return true;
}

int mesh_simulator::tx_pattern(const std::string& name, const std::string& peer_mac) const {
  node_view v;
  if (!node_state(name, &v)) return -1;
  std::string key = lower_text(peer_mac);
  for (const pattern_entry& e : v.tx_patterns) {
    if (e.peer_mac == key) return e.pattern;
  }
  return DEFAULT_PATTERN;
}

int mesh_simulator::rx_pattern(const std::string& name) const {
  node_view v;
  return node_state(name, &v) ? v.rx_pattern : -1;
}

std::vector<measure_window> mesh_simulator::windows() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<measure_window> out = records_.windows();
  for (const node& n : topo_.nodes)
    out.insert(out.end(), n.measuring.begin(), n.measuring.end());
  return out;
}

bool mesh_simulator::pairs_within_two_hops(const std::string& a1, const std::string& a2,
                                           const std::string& b1, const std::string& b2) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return meshsim::pairs_within_two_hops(topo_, a1, a2, b1, b2);
}

std::string mesh_simulator::fallback(const std::string& name) const {
  node_view v;
  return node_state(name, &v) ? v.fallback : std::string();
}

}  // namespace meshsim

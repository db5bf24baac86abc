// The twelve command indexes as a node agent handles them. Indexes 3 and 7 and anything outside
// 0..11 are refused.
#include "meshsim/commands.h"

#include <cstdio>

#include "meshsim/faults.h"
#include "meshsim/interference.h"
#include "meshsim/radio.h"

namespace meshsim {
namespace {

constexpr char PLAIN_ARG1[] = "127.0.0.1";

reply refuse(const std::string& why) {
  reply r;
  r.note = why;
  return r;
}

reply accept(std::string text = std::string()) {
  reply r;
  r.accepted = true;
  r.text = std::move(text);
  return r;
}

bool is_pattern(int value) {
  return value >= 0 && value < PATTERN_COUNT;
}

// Four dot-separated decimal numbers, at most 15 characters: the shape of every arg1.
bool is_dotted_numbers(const std::string& text) {
  unsigned a, b, c, d;
  char tail = 0;
  if (text.size() > 15 || text.find_first_not_of("0123456789.") != std::string::npos) return false;
  return std::sscanf(text.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) == 4;
}

// A line that names another MAC than the peer: its first octet replaced.
std::string other_mac(const std::string& mac) {
  std::string out = mac;
  out.replace(0, 2, lower_text(mac.substr(0, 2)) == "02" ? "06" : "02");
  return out;
}

std::string result_line(const topology& topo, node& n, const node& peer, link_model& link, double share,
                        uint64_t* rng) {
  measurement m = measure_rate(topo, model_bitrate(topo, n, peer, link) * share, link, rng);
  const fault* radio = find_fault(n, fault_kind::radio, 5);
  std::string mac = find_fault(n, fault_kind::no_peer_line, 5) != nullptr ? other_mac(peer.mac) : peer.mac;
  char line[160];
  std::snprintf(line, sizeof line, "%s,%d,0x%x,%d,%d,%d,%d\n", mac.c_str(), radio ? radio->arg : MESH_RADIO,
                static_cast<unsigned>(tx_pattern_of(n, peer.mac)), m.avg_bitrate, m.nframes, m.nfeedback,
                m.avg_bitrate_ma);
  return line;
}

// Command 5: one line per peer started since the last command 5, whose windows it stops. A peer
// without a link model gets no line: there is no station to report on.
reply stop_measurement(topology& topo, node& n, const command_context& ctx) {
  reply r = accept();
  r.closed = close_windows(topo, n, ctx.t_ms);
  for (const measure_window& w : r.closed) {
    node* peer = topo.find_by_mac(w.peer_mac);
    if (peer == nullptr) continue;
    for (link_model& link : n.links) {
      if (link.peer == peer->name) r.text += result_line(topo, n, *peer, link, w.share, ctx.rng);
    }
  }
  return r;
}

reply neighbour_lines(const node& n) {
  std::string text;
  for (const neighbour_entry& e : n.neighbours) {
    text += e.mac + "," + std::to_string(e.radio) + "," + std::to_string(e.pattern) + "\n";
  }
  return accept(text);
}

reply client_lines(const node& n) {
  std::string text;
  for (const std::string& c : n.clients)
    text += c + "\n";
  return accept(text);
}

reply set_pattern(node& n, const command_line& cmd) {
  if (!is_pattern(cmd.value)) return refuse("pattern out of 0..3");
  if (!is_mac_text(cmd.arg2)) return refuse("peer is not a MAC text");
  if (cmd.index == 2 && cmd.arg1 != PLAIN_ARG1) {
    if (!is_dotted_numbers(cmd.arg1)) return refuse("fallback text is not four dotted numbers");
    n.fallback = cmd.arg1;
  }
  set_tx_pattern(n, cmd.arg2, cmd.value);
  return accept();
}

reply start_towards_ip(topology& topo, node& n, const command_line& cmd, int64_t t_ms) {
  if (!is_dotted_numbers(cmd.arg1)) return refuse("peer is not an IP text");
  node* peer = topo.find_by_ip(cmd.arg1);
  if (peer == nullptr) {
    reply r = accept();
    r.note = "measurement towards unknown IP " + cmd.arg1;
    return r;
  }
  open_window(topo, n, peer->mac, t_ms);
  return accept();
}

}  // namespace

reply act_on_command(topology& topo, node& n, const command_line& cmd, const command_context& ctx) {
  bool mac_arg2 = is_mac_text(cmd.arg2);
  switch (cmd.index) {
    case 0:
      if (!mac_arg2) return refuse("node MAC is not a MAC text");
      n.learned_macs.push_back(cmd.arg2);
      return accept();
    case 1:
      return neighbour_lines(n);
    case 2:
    case 10:
      return set_pattern(n, cmd);
    case 4:
      if (!mac_arg2) return refuse("peer is not a MAC text");
      open_window(topo, n, cmd.arg2, ctx.t_ms);
      return accept();
    case 5:
      return stop_measurement(topo, n, ctx);
    case 6:
      if (lower_text(cmd.arg2) != lower_text(n.mac))
        return refuse("optimisation for another MAC than the node's");
      ++n.optimisations;
      return accept();
    case 8:
      return start_towards_ip(topo, n, cmd, ctx.t_ms);
    case 9:
      return client_lines(n);
    case 11:
      if (!is_pattern(cmd.value)) return refuse("pattern out of 0..3");
      n.rx_pattern = cmd.value;
      return accept();
    default:
      return refuse("no such command index");
  }
}

}  // namespace meshsim

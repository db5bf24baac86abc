// The discovery responder and the control socket of the simulator.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "meshsim/faults.h"
#include "meshsim/net.h"
#include "meshsim/simulator.h"

namespace meshsim {
namespace {

// Answers go out in small bursts so that a receiver with a default socket buffer, reading one
// datagram at a time, keeps up with hundreds of nodes.
constexpr std::size_t DISCOVERY_BURST = 8;
constexpr int DISCOVERY_BURST_GAP_MS = 3;
constexpr std::size_t MAX_DISCOVERY_JOBS = 16;
constexpr std::size_t DISCOVERY_ANSWER_MAX = 64;
constexpr std::size_t CONTROL_LINE_MAX = 4096;

}  // namespace

void mesh_simulator::read_discovery() {
  for (;;) {
    char buf[256];
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    ssize_t got =
        recvfrom(udp_.get(), buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &from_len);
    if (got < 0) return;
    std::string payload(buf, static_cast<std::size_t>(got));
    std::string text = payload.substr(0, payload.find('\0'));
    command_record r;
    r.t_ms = now_ms() - start_ms_;
    r.source = "discovery";
    r.ip = address_text(from);
    r.line = text;
    r.frame_len = payload.size();
    // The request is "IP?" and its NUL; a request without the NUL is answered as well.
    bool request = text == "IP?" && is_loopback(from);
    if (!request || discovery_jobs_.size() >= MAX_DISCOVERY_JOBS) {
      note("discovery: ignored %zd bytes from %s", got, r.ip.c_str());
      r.answer = "ignored";
      records_.add(std::move(r));
      continue;
    }
    discovery_job job;
    job.to = from;
    job.next_ms = now_ms();
    for (const node& n : topo_.nodes) {
      if (find_fault(n, fault_kind::no_discovery, -1) != nullptr) continue;
      const fault* claim = find_fault(n, fault_kind::claim_mac, -1);
      const fault* lines = find_fault(n, fault_kind::eth_lines, -1);
      const std::string& mac = claim != nullptr ? claim->mac : n.mac;
      // With eth_lines the node announces interfaces 0 to N-1, one datagram each, all its own.
      const int count = lines != nullptr ? lines->arg : 1;
      for (int k = 0; k < count; ++k) {
        char line[DISCOVERY_ANSWER_MAX + 1];
        std::snprintf(line, sizeof line, "%s,%s,%d,%d", n.ip.c_str(), mac.c_str(), n.value,
                      lines != nullptr ? k : n.eth);
        job.answers.emplace_back(n.ip, line);
        if (find_fault(n, fault_kind::dup_discovery, -1) != nullptr) job.answers.emplace_back(n.ip, line);
      }
    }
    r.answer = "answers " + std::to_string(job.answers.size());
    records_.add(std::move(r));
    discovery_jobs_.push_back(std::move(job));
  }
}

void mesh_simulator::send_discovery_answers() {
  while (!discovery_jobs_.empty()) {
    discovery_job& job = discovery_jobs_.front();
    if (now_ms() < job.next_ms) return;
    for (std::size_t sent = 0; sent < DISCOVERY_BURST && job.next < job.answers.size(); ++sent) {
      const auto& answer = job.answers[job.next];
      if (send_from(udp_out_.get(), answer.first, job.to, answer.second) < 0) {
        if (errno == EAGAIN || errno == ENOBUFS) break;  // try again after the gap
        note("discovery: answer to %s not sent", address_text(job.to).c_str());
      }
      ++job.next;
    }
    job.next_ms = now_ms() + DISCOVERY_BURST_GAP_MS;
    if (job.next < job.answers.size()) return;
    discovery_jobs_.pop_front();
  }
}

void mesh_simulator::accept_control() {
  for (;;) {
    unique_fd fd(accept4(control_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.valid()) return;
    auto c = std::make_unique<control_client>();
    c->fd = std::move(fd);
    control_clients_.push_back(std::move(c));
  }
}

// One control line per line feed; each gets "ok" (or the "show" text) or "error: <reason>".
void mesh_simulator::serve_control(control_client& c) {
  char buf[1024];
  ssize_t got = recv(c.fd.get(), buf, sizeof buf, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got <= 0 || c.in.size() > CONTROL_LINE_MAX) {
    c.done = true;
    return;
  }
  c.in.append(buf, static_cast<std::size_t>(got));
  for (std::size_t end; (end = c.in.find('\n')) != std::string::npos;) {
    std::string line = c.in.substr(0, end);
    c.in.erase(0, end + 1);
    std::string reply;
    // control() takes mutex_ itself; the loop holds it here, so apply directly.
    bool changed = false;
    int result = apply_control(line, &reply, &changed);
    if (changed) {
      ++change_gen_;
      reconcile_listeners();
      reconciled_gen_ = change_gen_;
    }
    std::string out = result == 0 ? (reply.empty() ? "ok" : reply) : "error: " + reply;
    out += "\n";
    if (result != 0) note("control: \"%s\": %s", line.c_str(), reply.c_str());
    send(c.fd.get(), out.data(), out.size(), MSG_NOSIGNAL);
  }
}

}  // namespace meshsim

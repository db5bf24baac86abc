// The node agents: accepting connections, reading each 1024-byte frame, and playing the answer
// plan step by step without blocking the loop.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "meshsim/net.h"
#include "meshsim/simulator.h"

namespace meshsim {
namespace {

constexpr std::size_t MAX_CONNECTIONS = 900;  // beyond this a new connection is closed at once

// Reads and drops whatever the peer still sends, so that closing does not reset the connection
// and lose the answer in flight.
void drain(int fd) {
  char sink[1024];
  while (recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
  }
}

}  // namespace

void mesh_simulator::accept_agents(listener& l) {
  for (;;) {
    unique_fd fd(accept4(l.fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.valid()) return;
    if (connections_.size() >= MAX_CONNECTIONS) {
      note("node %s: too many open connections, one closed unanswered", l.node.c_str());
      continue;
    }
    auto c = std::make_unique<connection>();
    c->fd = std::move(fd);
    c->node = l.node;
    c->ip = l.ip;
    c->deadline_ms = now_ms() + config_.frame_timeout_ms;
    connections_.push_back(std::move(c));
  }
}

void mesh_simulator::serve_connection(connection& c, short revents) {
  switch (c.state) {
    case connection::phase::reading:
      if (revents != 0) read_frame(c);
      if (!c.done && c.state == connection::phase::reading && now_ms() >= c.deadline_ms) {
        refuse_frame(c, "timed out");
      }
      return;
    case connection::phase::answering:
      if (revents & (POLLERR | POLLHUP)) {
        c.done = true;  // reset by the peer: nothing more can be sent
        return;
      }
      if (c.waiting && now_ms() < c.deadline_ms) return;
      if (!c.waiting && c.out.empty() && revents == 0) return;
      c.waiting = false;
      run_steps(c);
      return;
    case connection::phase::holding:
      // Silent agent: keep the connection until the peer hangs up.
      if (revents != 0) {
        char sink[256];
        ssize_t got = recv(c.fd.get(), sink, sizeof sink, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) c.done = true;
      }
      return;
  }
}

void mesh_simulator::read_frame(connection& c) {
  char buf[FRAME_SIZE];
  std::size_t want = FRAME_SIZE - c.frame.size();
  ssize_t got = recv(c.fd.get(), buf, want, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got <= 0) {
    refuse_frame(c, got == 0 ? "closed" : "read error");
    return;
  }
  c.frame.append(buf, static_cast<std::size_t>(got));
  if (c.frame.size() == FRAME_SIZE) answer_frame(c);
}

void mesh_simulator::answer_frame(connection& c) {
  bool complete = false;
  std::string line = frame_line(c.frame, &complete);
  command_line cmd;
  bool parsed = complete && parse_command_line(line, &cmd);
  node* n = topo_.find(c.node);
  if (n == nullptr) {
    record(c, line, parsed ? &cmd : nullptr, "no_node");
    c.done = true;
    return;
  }
  command_context ctx;
  ctx.t_ms = now_ms() - start_ms_;
  ctx.rng = &rng_;
  answer_plan plan = answer_command(topo_, *n, parsed ? &cmd : nullptr, config_.marker_gap_ms, ctx);
  if (!plan.note.empty()) note("node %s: \"%s\": %s", c.node.c_str(), line.c_str(), plan.note.c_str());
  record(c, line, parsed ? &cmd : nullptr, plan.kind);
  for (measure_window& w : plan.closed)
    records_.add_window(std::move(w));
  c.steps = std::move(plan.steps);
  c.next_step = 0;
  c.state = connection::phase::answering;
  run_steps(c);
}

void mesh_simulator::run_steps(connection& c) {
  while (!c.done) {
    if (!c.out.empty()) {
      ssize_t sent = send(c.fd.get(), c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return;
      if (sent < 0) {
        c.done = true;  // the peer went away
        return;
      }
      c.out.erase(0, static_cast<std::size_t>(sent));
      if (!c.out.empty()) return;
    }
    if (c.next_step >= c.steps.size()) {
      c.done = true;
      return;
    }
    const step& s = c.steps[c.next_step++];
    switch (s.what) {
      case step::kind::send:
        c.out = s.bytes;
        break;
      case step::kind::wait:
        c.waiting = true;
        c.deadline_ms = now_ms() + s.ms;
        return;
      case step::kind::close:
        drain(c.fd.get());
        shutdown(c.fd.get(), SHUT_WR);
        c.done = true;
        return;
      case step::kind::hold:
        c.state = connection::phase::holding;
        return;
    }
  }
}

// A frame that ended early, by the peer's close or by the time-out, is not a command.
void mesh_simulator::refuse_frame(connection& c, const char* why) {
  bool complete = false;
  std::string line = frame_line(c.frame, &complete);
  note("node %s: refused a frame of %zu bytes (%s): \"%s\"", c.node.c_str(), c.frame.size(), why,
       line.c_str());
  record(c, line, nullptr, "short_frame");
  send(c.fd.get(), "nack", 4, MSG_NOSIGNAL | MSG_DONTWAIT);
  c.done = true;
}

void mesh_simulator::record(const connection& c, const std::string& line, const command_line* cmd,
                            const std::string& answer) {
  command_record r;
  r.t_ms = now_ms() - start_ms_;
  r.source = "agent";
  r.node = c.node;
  r.ip = c.ip;
  r.line = line;
  if (cmd != nullptr) {
    r.index = cmd->index;
    r.value = cmd->value;
    r.arg1 = cmd->arg1;
    r.arg2 = cmd->arg2;
  }
  r.frame_len = c.frame.size();
  r.answer = answer;
  records_.add(std::move(r));
}

}  // namespace meshsim

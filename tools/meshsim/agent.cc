// Command line parsing and the delivery of an agent's answer, with the node's faults applied.
#include "meshsim/agent.h"

#include <cctype>

#include "meshsim/commands.h"
#include "meshsim/faults.h"

namespace meshsim {
namespace {

// Junk that a broken agent may mix into its answer: a line without commas, a MAC field far over
// 17 characters, bytes outside ASCII, a line longer than one read, and text without a line feed.
std::string with_garbage(const std::string& text) {
  std::string head = "garbage line without commas and far too long for any field\n";
  head += "zz:zz:zz:zz:zz:zz:zz:zz:zz:zz:zz,2,0x1,5,5,5,5\n";
  head += "\xff\xfe\x01\x7f,,\n";
  std::string tail = "," + std::string(1500, 'x') + "\n";
  tail += "trailing text without a line feed";
  return head + text + tail;
}

// Takes a decimal integer (optionally negative) from line at *pos; false when none or too big.
bool take_int(const std::string& line, std::size_t* pos, int* out) {
  std::size_t start = *pos;
  if (*pos < line.size() && line[*pos] == '-') ++*pos;
  std::size_t digits = *pos;
  while (*pos < line.size() && std::isdigit(static_cast<unsigned char>(line[*pos])))
    ++*pos;
  return *pos > digits && parse_int(line.substr(start, *pos - start), out);
}

bool is_word(const std::string& w) {
  if (w.empty()) return false;
  for (char c : w) {
    if (c == ' ' || c == '\0' || c == '\r' || c == '\t') return false;
  }
  return true;
}

void push_send(answer_plan& plan, const std::string& bytes) {
  step s;
  s.what = step::kind::send;
  s.bytes = bytes;
  plan.steps.push_back(s);
}

void push_wait(answer_plan& plan, int ms) {
  step s;
  s.what = step::kind::wait;
  s.ms = ms;
  plan.steps.push_back(s);
}

void push_end(answer_plan& plan, step::kind what) {
  step s;
  s.what = what;
  plan.steps.push_back(s);
}

answer_plan nack_plan(const std::string& kind, const std::string& note) {
  answer_plan plan;
  push_send(plan, "nack");
  push_end(plan, step::kind::close);
  plan.kind = kind;
  plan.note = note;
  return plan;
}

// Sends the text and the marker the way the node's faults say.
answer_plan deliver(const node& n, int index, const std::string& text, int marker_gap_ms) {
  answer_plan plan;
  plan.kind = text.empty() ? "ack" : "text+ack";
  if (find_fault(n, fault_kind::same_send, index) != nullptr) {
    push_send(plan, text + "ack");
    plan.kind = "same_send";
  } else if (find_fault(n, fault_kind::no_marker, index) != nullptr) {
    if (!text.empty()) push_send(plan, text);
    plan.kind = "no_marker";
  } else if (find_fault(n, fault_kind::cut, index) != nullptr) {
    if (text.size() > 1) push_send(plan, text.substr(0, text.size() / 2));
    plan.kind = "cut";
  } else if (const fault* trickle = find_fault(n, fault_kind::trickle, index)) {
    // Every gap is the same, so each stays under a reader's time-out while the whole answer
    // takes as long as the lines make it.
    for (const std::string& line : split_lines(text)) {
      push_wait(plan, trickle->arg);
      push_send(plan, line + "\n");
    }
    push_wait(plan, trickle->arg);
    push_send(plan, "ack");
  } else {
    const fault* delay = find_fault(n, fault_kind::delay, index);
    if (!text.empty()) push_send(plan, text);
    int gap = delay != nullptr ? delay->arg : (text.empty() ? 0 : marker_gap_ms);
    if (gap > 0) push_wait(plan, gap);
    push_send(plan, "ack");
  }
  push_end(plan, step::kind::close);
  return plan;
}

}  // namespace

std::string frame_line(const std::string& frame, bool* complete) {
  std::size_t end = frame.find('\n');
  *complete = end != std::string::npos;
  return frame.substr(0, *complete ? end : frame.size());
}

bool parse_command_line(const std::string& line, command_line* out) {
  std::size_t pos = 0;
  command_line c;
  if (!take_int(line, &pos, &c.index) || pos >= line.size() || line[pos++] != ',') return false;
  if (!take_int(line, &pos, &c.value) || pos >= line.size() || line[pos++] != ',') return false;
  std::size_t blank = line.find(' ', pos);
  if (blank == std::string::npos) return false;
  c.arg1 = line.substr(pos, blank - pos);
  c.arg2 = line.substr(blank + 1);
  if (!is_word(c.arg1) || !is_word(c.arg2)) return false;
  *out = c;
  return true;
}

answer_plan answer_command(topology& topo, node& n, const command_line* cmd, int marker_gap_ms,
                           const command_context& ctx) {
  if (cmd == nullptr) return nack_plan("nack", "malformed command line");
  int index = cmd->index;
  if (find_fault(n, fault_kind::silent, index) != nullptr) {
    answer_plan plan;
    push_end(plan, step::kind::hold);
    plan.kind = "silent";
    return plan;
  }
  if (fault* f = find_fault(n, fault_kind::nack_count, index)) {
    --f->arg;
    return nack_plan("nack", "");
  }
  if (find_fault(n, fault_kind::nack_always, index) != nullptr) return nack_plan("nack", "");
  reply r = act_on_command(topo, n, *cmd, ctx);
  if (!r.accepted) return nack_plan("nack", r.note);
  std::string text = find_fault(n, fault_kind::garbage, index) != nullptr ? with_garbage(r.text) : r.text;
  answer_plan plan = deliver(n, index, text, marker_gap_ms);
  plan.note = r.note;
  plan.closed = std::move(r.closed);
  return plan;
}

}  // namespace meshsim

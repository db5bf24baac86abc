// Fault statements and the look-up of the fault that applies to a command.
#include "meshsim/faults.h"

namespace meshsim {
namespace {

enum argument { NONE, NUMBER, MAC };

struct fault_kind_info {
  fault_kind kind;
  const char* name;
  argument takes;
};

constexpr fault_kind_info FAULT_KINDS[] = {
    {fault_kind::nack_count, "nack", NUMBER},
    {fault_kind::nack_always, "nack_always", NONE},
    {fault_kind::silent, "silent", NONE},
    {fault_kind::no_marker, "no_marker", NONE},
    {fault_kind::cut, "cut", NONE},
    {fault_kind::refuse, "refuse", NONE},
    {fault_kind::delay, "delay", NUMBER},
    {fault_kind::same_send, "same_send", NONE},
    {fault_kind::garbage, "garbage", NONE},
    {fault_kind::radio, "radio", NUMBER},
    {fault_kind::no_peer_line, "no_peer_line", NONE},
    {fault_kind::no_discovery, "no_discovery", NONE},
    {fault_kind::dup_discovery, "dup_discovery", NONE},
    {fault_kind::trickle, "trickle", NUMBER},
    {fault_kind::eth_lines, "eth_lines", NUMBER},
    {fault_kind::claim_mac, "claim_mac", MAC},
};

const fault_kind_info* info_of(const std::string& name) {
  for (const fault_kind_info& s : FAULT_KINDS) {
    if (name == s.name) return &s;
  }
  return nullptr;
}

int fail(std::string* error, const std::string& why) {
  if (error != nullptr) *error = why;
  return -1;
}

// "on=1,5" into {1, 5}.
bool parse_commands(const std::string& text, std::vector<int>* out) {
  if (text.compare(0, 3, "on=") != 0) return false;
  for (const std::string& item : split_lines(text.substr(3), ',')) {
    int index = 0;
    if (!parse_int(item, &index) || index < 0 || index > 11) return false;
    out->push_back(index);
  }
  return !out->empty();
}

void remove_kind(node& n, fault_kind kind) {
  for (auto it = n.faults.begin(); it != n.faults.end();) {
    it = it->kind == kind ? n.faults.erase(it) : it + 1;
  }
}

bool applies(const fault& f, fault_kind kind, int index) {
  if (f.kind != kind) return false;
  if (f.kind == fault_kind::nack_count && f.arg <= 0) return false;
  if (index < 0 || f.commands.empty()) return true;
  for (int c : f.commands) {
    if (c == index) return true;
  }
  return false;
}

}  // namespace

int apply_fault(node& n, const std::vector<std::string>& words, std::string* error) {
  if (words.size() == 3 && words[2] == "none") {
    n.faults.clear();
    return 0;
  }
  if (words.size() < 3)
    return fail(error, "usage: fault NAME KIND [ARG] [on=I,J] | fault NAME KIND off | none");
  const fault_kind_info* info = info_of(words[2]);
  if (info == nullptr) return fail(error, "unknown fault " + words[2]);
  if (words.size() == 4 && words[3] == "off") {
    remove_kind(n, info->kind);
    return 0;
  }
  fault f;
  f.kind = info->kind;
  std::size_t next = 3;
  if (info->takes == NUMBER) {
    if (words.size() <= next || !parse_int(words[next], &f.arg) || f.arg < 0) {
      return fail(error, std::string("fault ") + info->name + " needs a number");
    }
    ++next;
  } else if (info->takes == MAC) {
    if (words.size() <= next || !is_mac_text(words[next])) {
      return fail(error, std::string("fault ") + info->name + " needs a MAC text");
    }
    f.mac = words[next++];
  }
  if (words.size() > next && !parse_commands(words[next++], &f.commands)) {
    return fail(error, "bad command list, expected on=I,J with indexes 0..11");
  }
  if (words.size() > next) return fail(error, "too many words in fault statement");
  remove_kind(n, f.kind);
  n.faults.push_back(f);
  return 0;
}

fault* find_fault(node& n, fault_kind kind, int index) {
  for (fault& f : n.faults) {
    if (applies(f, kind, index)) return &f;
  }
  return nullptr;
}

const fault* find_fault(const node& n, fault_kind kind, int index) {
  for (const fault& f : n.faults) {
    if (applies(f, kind, index)) return &f;
  }
  return nullptr;
}

const char* fault_name(fault_kind kind) {
  for (const fault_kind_info& s : FAULT_KINDS) {
    if (s.kind == kind) return s.name;
  }
  return "?";
}

}  // namespace meshsim

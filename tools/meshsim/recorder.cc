// Keeping, waiting on and writing the records.
#include "meshsim/recorder.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace meshsim {
namespace {

// JSON string body; bytes outside printable ASCII become \u00XX so the line stays valid JSON.
std::string json_text(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7f) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace

int recorder::open(const std::string& path, std::string* error) {
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return -1;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  file_.reset(f);
  return 0;
}

void recorder::add(command_record r) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (file_) {
    std::string line = record_json(r) + "\n";
    std::fwrite(line.data(), 1, line.size(), file_.get());
    std::fflush(file_.get());
  }
  records_.push_back(std::move(r));
  added_.notify_all();
}

void recorder::add_window(measure_window w) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (file_) {
    std::string line = window_json(w) + "\n";
    std::fwrite(line.data(), 1, line.size(), file_.get());
    std::fflush(file_.get());
  }
  windows_.push_back(std::move(w));
}

std::vector<measure_window> recorder::windows() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return windows_;
}

std::vector<command_record> recorder::copy() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

void recorder::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
  windows_.clear();
}

bool recorder::wait_for(const record_predicate& pred, int timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  return added_.wait_until(lock, until, [&] { return pred(records_); });
}

std::string record_json(const command_record& r) {
  char head[96];
  std::snprintf(head, sizeof head, "{\"t_ms\":%lld,\"source\":\"", static_cast<long long>(r.t_ms));
  std::string out = head;
  out += json_text(r.source) + "\",\"node\":\"" + json_text(r.node) + "\",\"ip\":\"" + json_text(r.ip);
  out += "\",\"line\":\"" + json_text(r.line) + "\",\"index\":" + std::to_string(r.index);
  out += ",\"value\":" + std::to_string(r.value) + ",\"arg1\":\"" + json_text(r.arg1);
  out += "\",\"arg2\":\"" + json_text(r.arg2) + "\",\"frame_len\":" + std::to_string(r.frame_len);
  out += ",\"answer\":\"" + json_text(r.answer) + "\"}";
  return out;
}

std::string window_json(const measure_window& w) {
  char figures[256];
  std::snprintf(figures, sizeof figures,
                "\",\"start_ms\":%lld,\"stop_ms\":%lld,\"start_seq\":%llu,\"stop_seq\":%llu,"
                "\"gain_db\":%g,\"share\":%.6f}",
                static_cast<long long>(w.start_ms), static_cast<long long>(w.stop_ms),
                static_cast<unsigned long long>(w.start_seq), static_cast<unsigned long long>(w.stop_seq),
                w.gain_db, w.share);
  std::string out = "{\"t_ms\":" + std::to_string(w.stop_ms) + ",\"source\":\"window\",\"node\":\"";
  out +=
      json_text(w.node) + "\",\"peer\":\"" + json_text(w.peer) + "\",\"peer_mac\":\"" + json_text(w.peer_mac);
  return out + figures;
}

}  // namespace meshsim

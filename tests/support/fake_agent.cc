#include "support/fake_agent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>

bool agent_barrier::arrive_and_wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (++arrived_ >= parties_) all_.notify_all();
  return all_.wait_for(lock, std::chrono::seconds(2), [this] { return arrived_ >= parties_; });
}

fake_agent::fake_agent(const char* ip, uint16_t port, script replies, std::shared_ptr<agent_barrier> barrier)
    : replies_(std::move(replies)), barrier_(std::move(barrier)) {
  listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int one = 1;
  setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  if (inet_pton(AF_INET, ip, &addr.sin_addr) != 1 ||
      bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener_.get(), 16) != 0) {
    return;
  }
  thread_ = std::thread(&fake_agent::serve, this);
}

void fake_agent::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

std::vector<std::string> fake_agent::frames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

std::vector<std::string> fake_agent::commands() const {
  std::vector<std::string> lines;
  for (const std::string& frame : frames())
    lines.push_back(frame.substr(0, frame.find('\n')));
  return lines;
}

void fake_agent::serve() {
  std::size_t served = 0;
  while (!stopping_) {
    pollfd p{listener_.get(), POLLIN, 0};
    if (poll(&p, 1, 20) <= 0) continue;
    unique_fd conn(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!conn.valid()) continue;
    timeval limit{5, 0};
    setsockopt(conn.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string frame(1024, '\0');
    ssize_t got = recv(conn.get(), frame.data(), frame.size(), MSG_WAITALL);
    frame.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(frame);
    }
    if (barrier_ != nullptr) barrier_->arrive_and_wait();
    // Gone before it answers, so even a repetition sent at once finds nobody listening.
    const bool vanish = served + 1 >= vanish_after_;
    if (vanish) listener_.reset();
    if (!replies_.empty())
      answer(conn.get(), replies_[served < replies_.size() ? served : replies_.size() - 1]);
    ++served;
    if (vanish) return;
  }
}

void fake_agent::answer(int fd, const std::vector<std::string>& chunks) {
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(CHUNK_GAP_MS));
    if (send(fd, chunks[i].data(), chunks[i].size(), MSG_NOSIGNAL) < 0) return;  // the peer has gone
  }
  if (!chunks.empty()) return;
  // Silence: hold the connection until the peer gives up and hangs up.
  char sink[64];
  while (!stopping_) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 20) > 0 && recv(fd, sink, sizeof sink, 0) <= 0) return;
  }
}

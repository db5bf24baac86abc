#include "support/daemon_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>

extern char** environ;

namespace {

// The child's environment: the overrides, then this process's entries that they do not replace.
// Each name appears once, as a program that takes the last of two equal names (an emulator
// passing the environment on) would otherwise miss an override. Built before fork, because after
// a fork in a threaded process only async-signal-safe calls are safe.
std::vector<std::string> merged_environment(const std::vector<std::string>& overrides) {
  std::vector<std::string> merged(overrides);
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    std::string name = entry.substr(0, entry.find('=') + 1);
    bool replaced = std::any_of(overrides.begin(), overrides.end(),
                                [&](const std::string& o) { return o.compare(0, name.size(), name) == 0; });
    if (!replaced) merged.push_back(entry);
  }
  return merged;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> out;
  for (std::string& t : texts)
    out.push_back(t.data());
  out.push_back(nullptr);
  return out;
}

// In a cross build the daemon is a foreign binary: the emulator's words go in front of it,
// wherever it stands in the command (it may follow a wrapper such as unshare).
void run_daemon_emulated(std::vector<std::string>& argv) {
#ifdef ZUNTA_EMULATOR
  auto daemon = std::find(argv.begin(), argv.end(), std::string(daemon_path()));
  if (daemon == argv.end()) return;
  std::vector<std::string> words;
  std::istringstream emulator(ZUNTA_EMULATOR);
  for (std::string word; emulator >> word;)
    words.push_back(word);
  argv.insert(daemon, words.begin(), words.end());
#else
  (void)argv;
#endif
}

}  // namespace

daemon_process::daemon_process(std::vector<std::string> argv, std::vector<std::string> env) {
  run_daemon_emulated(argv);
  int out_pipe[2] = {-1, -1}, err_pipe[2] = {-1, -1};
  std::vector<std::string> environment = merged_environment(env);
  std::vector<char*> args = pointers(argv), envp = pointers(environment);
  if (pipe2(out_pipe, O_CLOEXEC) == 0 && pipe2(err_pipe, O_CLOEXEC) == 0) pid_ = fork();
  if (pid_ == 0) {
    dup2(out_pipe[1], STDOUT_FILENO);
    dup2(err_pipe[1], STDERR_FILENO);
    execvpe(args[0], args.data(), envp.data());
    _exit(127);
  }
  for (int fd : {out_pipe[1], err_pipe[1], pid_ < 0 ? out_pipe[0] : -1, pid_ < 0 ? err_pipe[0] : -1})
    if (fd >= 0) close(fd);
  if (pid_ > 0) reader_ = std::thread(&daemon_process::collect, this, out_pipe[0], err_pipe[0]);
}

daemon_process::~daemon_process() {
  terminate();
  if (reader_.joinable()) reader_.join();
}

void daemon_process::collect(int out_fd, int err_fd) {
  pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  int open_count = 2;
  char chunk[4096];
  while (open_count > 0) {
    if (poll(fds, 2, -1) < 0) break;
    for (pollfd& p : fds) {
      if (p.fd < 0 || p.revents == 0) continue;
      ssize_t got = read(p.fd, chunk, sizeof chunk);
      if (got <= 0) {
        close(p.fd);
        p.fd = -1;
        --open_count;
        continue;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      (p.fd == out_fd ? out_ : err_).append(chunk, static_cast<std::size_t>(got));
      changed_.notify_all();
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

bool daemon_process::wait_until(const std::function<bool(const std::string&)>& ready, int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  // A closed output cannot become ready any more, so stop waiting then.
  changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return closed_ || ready(out_); });
  return ready(out_);
}

int daemon_process::wait_exit(int timeout_ms) {
  if (pid_ <= 0) return -1;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!reaped_) {
    int status = 0;
    rusage usage{};
    pid_t done = wait4(pid_, &status, WNOHANG, &usage);
    if (done == pid_) {
      reaped_ = true;
      cpu_ms_ = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
                (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // The output is complete once both pipes are closed.
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return closed_; });
  return status_;
}

void daemon_process::terminate() {
  if (pid_ <= 0 || reaped_) return;
  kill(pid_, SIGTERM);
  if (wait_exit(5000) < 0) {
    kill(pid_, SIGKILL);
    wait_exit(5000);
  }
}

void daemon_process::kill_now() {
  if (pid_ <= 0 || reaped_) return;
  kill(pid_, SIGKILL);
  wait_exit(5000);
}

std::string daemon_process::out() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return out_;
}

std::string daemon_process::err() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return err_;
}

bool can_unshare_network() {
  return std::system("unshare -n true >/dev/null 2>&1") == 0;
}

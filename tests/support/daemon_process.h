// Runs a program (the built daemon) as a child process with its own environment overrides and
// collects its standard output and error as they arrive, so tests wait on lines, not on time.
#ifndef ZUNTA_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define ZUNTA_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class daemon_process {
 public:
  // argv[0] is the program path; env entries are "NAME=value" added to the inherited environment.
  daemon_process(std::vector<std::string> argv, std::vector<std::string> env);
  ~daemon_process();
  daemon_process(const daemon_process&) = delete;
  daemon_process& operator=(const daemon_process&) = delete;

  bool started() const { return pid_ > 0; }
  // Waits until the standard output holds `text` (true) or the time-out passes (false).
  bool wait_for_output(const std::string& text, int timeout_ms) {
    return wait_until([&](const std::string& out) { return out.find(text) != std::string::npos; },
                      timeout_ms);
  }
  // Waits until `ready` holds for the output collected so far.
  bool wait_until(const std::function<bool(const std::string& out)>& ready, int timeout_ms);
  // Waits for the exit and gives the exit status, or -1 when it did not exit in time.
  int wait_exit(int timeout_ms);
  void terminate();  // SIGTERM, then SIGKILL after a grace period; reaps the child
  void kill_now();   // SIGKILL, as a power cut or a crash ends it; reaps the child
  // Processor time (user and system) the child used, once it has been reaped.
  int64_t cpu_ms() const { return cpu_ms_; }
  std::string out() const;
  std::string err() const;

 private:
  void collect(int out_fd, int err_fd);

  pid_t pid_ = -1;
  int status_ = -1;
  int64_t cpu_ms_ = -1;
  bool reaped_ = false;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string out_;
  std::string err_;
  bool closed_ = false;
  std::thread reader_;
};

// Path of the built daemon.
inline const char* daemon_path() {
  return ZUNTA_COORD_PATH;
}
// True when this process may make a private network namespace (unshare -n).
bool can_unshare_network();

#endif  // ZUNTA_TESTS_SUPPORT_DAEMON_PROCESS_H_

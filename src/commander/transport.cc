// The exchange with a node agent: framing, one connection per command, markers, and repetition.
// Each command is a job whose exchange advances on poll events and deadlines, so one thread runs
// any number of them at once; a single command is a batch of one.
#include "commander/transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "commander/failures.h"
#include "core/log.h"
#include "core/runtime.h"
#include "core/text.h"

char command[COMMAND_SIZE] = {};

namespace {

constexpr int64_t AGENT_TIMEOUT_US = 3000000;                // connection, send, and each read
constexpr int64_t ANSWER_TIMEOUT_US = 2 * AGENT_TIMEOUT_US;  // the whole answer after the command
constexpr int64_t RETRY_PAUSE_US = 1000000;
// The lines of an exchange name the procedure that owns the step, whichever helper of the state
// machine notices the event.
constexpr char EXCHANGE[] = "zunta_send_command";
constexpr char WRAPPER[] = "zunta_make_and_send_command";

enum phase : int { CONNECTING, SENDING, READING, PAUSING, DONE };
enum marker : int { NO_MARKER, ACK, NACK };

int64_t monotonic_us() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void start_exchange(zunta_command_job& job, int64_t now);

void close_socket(zunta_exchange_state& s) {
  if (s.fd >= 0) close(s.fd);
  s.fd = -1;
}

void finish_job(zunta_command_job& job) {
  zunta_exchange_state& s = job.state;
  s.phase = DONE;
  if (s.last == 1) {
    ZLOG_AS(WRAPPER, COMP_CORE, LVL_I, "Maximum number of requests is reached\n");
    job.result = 1;
    zunta_count_failure(job.ip);
    return;
  }
  // A repetition that failed locally (the agent vanished between attempts) means the command did
  // not go through: it is reported as a failure, and text gathered by earlier attempts is not
  // handed on as if it were the answer.
  if (s.last == -1) {
    job.result = -1;
    zunta_count_failure(job.ip);
    return;
  }
  ZLOG_AS(WRAPPER, COMP_CORE, LVL_D, "RESPONSE %d: %s\n", job.index, job.answer);
  job.result = 0;
}

// An exchange has ended with `code`: a lone exchange is done; the first one of a command is
// repeated at once when refused, silent or unmarked; every repetition is followed by the pause.
void after_exchange(zunta_command_job& job, int code, int64_t now) {
  zunta_exchange_state& s = job.state;
  s.last = code;
  if (s.single) {
    job.result = code;
    s.phase = DONE;
    return;
  }
  if (!s.retrying) {
    if (code == -1) {
      ZLOG_AS(WRAPPER, COMP_CORE, LVL_E, "Error while sending command\n");
      job.result = -1;
      s.phase = DONE;
      zunta_count_failure(job.ip);
      return;
    }
    if (code == 0) return finish_job(job);
    s.retrying = true;
    s.counter = 0;
    return start_exchange(job, now);
  }
  if (code == -1) ZLOG_AS(WRAPPER, COMP_CORE, LVL_E, "Error while sending command (%d)\n", s.counter);
  s.phase = PAUSING;
  s.wake_us = now + zunta_scaled_us(RETRY_PAUSE_US);
}

void after_pause(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  ++s.counter;
  if (s.last > 0 && s.counter < COMMAND_RETRIES) return start_exchange(job, now);
  finish_job(job);
}

void fail_exchange(zunta_command_job& job, const char* line, int64_t now) {
  ZLOG_AS(EXCHANGE, COMP_CORE, LVL_E, "%s", line);
  close_socket(job.state);
  after_exchange(job, -1, now);
}

// The read loop has ended: the marker decides, else whether any answer text is held.
void end_reading(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  close_socket(s);
  if (s.marker == NO_MARKER) ZLOG_AS(EXCHANGE, COMP_CORE, LVL_E, "zero bytes received\n");
  int code = 1;
  if (s.marker == ACK) {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_D, "ACK received\n");
    code = 0;
  } else if (s.marker == NACK) {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_D, "NACK received\n");
  } else if (job.answer[0] != '\0') {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_I, "No ACK or NACK received: `%s`, returning (2)\n", job.answer);
    code = 2;
  } else {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_D, "No response from the slave, assuming NACK\n");
  }
  after_exchange(job, code, now);
}

void start_exchange(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  s.marker = NO_MARKER;
  s.sent = 0;
  s.text_seen = false;
  s.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (s.fd < 0) return fail_exchange(job, "Socket creation error \n", now);
  sockaddr_in agent{};
  agent.sin_family = AF_INET;
  agent.sin_port = htons(zunta_agent_port());
  if (job.ip == nullptr || inet_pton(AF_INET, job.ip, &agent.sin_addr) != 1)
    return fail_exchange(job, "Invalid address or address not supported\n", now);
  s.wake_us = now + zunta_scaled_us(AGENT_TIMEOUT_US);
  s.phase = CONNECTING;
  if (connect(s.fd, reinterpret_cast<sockaddr*>(&agent), sizeof agent) == 0) {
    s.phase = SENDING;
    return;
  }
  if (errno != EINPROGRESS && errno != EINTR) fail_exchange(job, "Connection Failed\n", now);
}

void on_connected(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  int error = 0;
  socklen_t len = sizeof error;
  if (getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0)
    return fail_exchange(job, "Connection Failed\n", now);
  s.phase = SENDING;
  s.wake_us = now + zunta_scaled_us(AGENT_TIMEOUT_US);
}

void send_some(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  // MSG_NOSIGNAL: an agent that has already closed must not end the daemon with SIGPIPE.
  ssize_t n = send(s.fd, job.buffer + s.sent, COMMAND_SIZE - s.sent, MSG_NOSIGNAL);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (n < 0) return fail_exchange(job, "Unable to send message to the server\n", now);
  s.sent += static_cast<std::size_t>(n);
  if (s.sent < COMMAND_SIZE) return;
  s.phase = READING;
  s.answer_by_us = now + zunta_scaled_us(ANSWER_TIMEOUT_US);
  s.wake_us = now + zunta_scaled_us(AGENT_TIMEOUT_US);
  if (s.wake_us > s.answer_by_us) s.wake_us = s.answer_by_us;
}

// One read. The chunk that carries the marker is not kept, because agents write the marker last,
// on its own.
void read_some(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  char chunk[ANSWER_SIZE + 1] = {};  // one read of at most 1024 bytes, always terminated
  ssize_t got = recv(s.fd, chunk, ANSWER_SIZE, 0);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (got <= 0) return end_reading(job, now);
  if (std::strstr(chunk, "nack") != nullptr) {
    s.marker = NACK;
    return end_reading(job, now);
  }
  if (std::strstr(chunk, "ack") != nullptr) {
    s.marker = ACK;
    return end_reading(job, now);
  }
  zunta_answer_append(job.answer, chunk, static_cast<std::size_t>(got), s.retrying && !s.text_seen);
  s.text_seen = true;
  s.wake_us = now + zunta_scaled_us(AGENT_TIMEOUT_US);
  if (s.wake_us > s.answer_by_us) s.wake_us = s.answer_by_us;
}

// Advances one job on its poll events or its deadline.
void step_job(zunta_command_job& job, short revents, int64_t now) {
  zunta_exchange_state& s = job.state;
  const bool due = now >= s.wake_us;
  switch (s.phase) {
    case CONNECTING:
      if (revents != 0) return on_connected(job, now);
      if (due) fail_exchange(job, "Connection Failed\n", now);
      return;
    case SENDING:
      if (revents != 0) return send_some(job, now);
      if (due) fail_exchange(job, "Unable to send message to the server\n", now);
      return;
    case READING:
      // The bound of the whole answer wins over bytes that keep trickling in.
      if (now >= s.answer_by_us) return end_reading(job, now);
      if (revents != 0) return read_some(job, now);
      if (due) end_reading(job, now);
      return;
    case PAUSING:
      if (due) after_pause(job, now);
      return;
    default:
      return;
  }
}

void begin_job(zunta_command_job& job, bool single, int64_t now) {
  job.state = zunta_exchange_state{};
  job.state.fd = -1;
  job.state.single = single;
  job.result = -1;
  if (single) return start_exchange(job, now);
  ZLOG_AS(WRAPPER, COMP_CORE, LVL_D, "CMD %d to %s - SET\n", job.index, job.ip);
  if (zunta_make_command(job.buffer, job.index, job.value, job.arg1, job.arg2) == -1) {
    ZLOG_AS(WRAPPER, COMP_CORE, LVL_E, "Error during command generation\n");
    job.state.phase = DONE;
    return;
  }
  start_exchange(job, now);
}

short awaited_events(int phase) {
  if (phase == READING) return POLLIN;
  if (phase == CONNECTING || phase == SENDING) return POLLOUT;
  return 0;
}

// Runs the jobs to their results; fds holds one poll entry per job.
void run_jobs(zunta_command_job* jobs, std::size_t count, bool single, pollfd* fds) {
  int64_t now = monotonic_us();
  for (std::size_t i = 0; i < count; ++i)
    begin_job(jobs[i], single, now);
  for (;;) {
    bool active = false;
    int64_t wake = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const zunta_exchange_state& s = jobs[i].state;
      const short events = awaited_events(s.phase);
      fds[i] = pollfd{events != 0 ? s.fd : -1, events, 0};  // poll skips negative descriptors
      if (s.phase == DONE) continue;
      if (!active || s.wake_us < wake) wake = s.wake_us;
      active = true;
    }
    if (!active) return;
    int64_t wait = wake - monotonic_us();
    if (wait < 0) wait = 0;
    const int64_t task_due = zunta_wait_tick_due_in_us();
    if (task_due < wait) wait = task_due;
    timespec limit{static_cast<time_t>(wait / 1000000), static_cast<long>((wait % 1000000) * 1000)};
    // On a failed poll no descriptor reports anything and the deadlines still run.
    if (ppoll(fds, count, &limit, nullptr) < 0) {
      for (std::size_t i = 0; i < count; ++i)
        fds[i].revents = 0;
    }
    now = monotonic_us();
    for (std::size_t i = 0; i < count; ++i)
      if (jobs[i].state.phase != DONE) step_job(jobs[i], fds[i].revents, now);
    zunta_wait_tick();
  }
}

void run_batch(zunta_command_job* jobs, std::size_t count, bool single) {
  if (count == 0) return;
  pollfd one{};
  auto* fds = count == 1 ? &one : static_cast<pollfd*>(std::calloc(count, sizeof(pollfd)));
  if (fds == nullptr) {
    ZLOG_AS("zunta_make_and_send_commands", COMP_CORE, LVL_E,
            "Memory allocation error for the command batch, sending one by one\n");
    for (std::size_t i = 0; i < count; ++i)
      run_jobs(&jobs[i], 1, single, &one);
    return;
  }
  run_jobs(jobs, count, single, fds);
  if (fds != &one) std::free(fds);
}

}  // namespace

void zunta_answer_append(char (&answer)[ANSWER_SIZE], const char* text, std::size_t len,
                         bool first_of_retry) {
  if (first_of_retry) {
    std::size_t used = strnlen(answer, ANSWER_SIZE - 1);
    std::size_t keep = used;
    while (keep > 0 && answer[keep - 1] != '\n')
      --keep;
    answer[keep] = '\0';
  }
  zunta_append_text(answer, sizeof answer, text, len);
}

int zunta_make_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                       const char* arg2) {
  if (index > COMMAND_INDEX_MAX) {
    ZLOG(COMP_CORE, LVL_E, "Invalid command index\n");
    return -1;
  }
  // Only the text up to the NUL is rewritten; what lies behind it is left from earlier commands.
  zunta_format_buffer(buffer, sizeof buffer, "%d,%d,%s %s\n", index, value, arg1, arg2);
  ZLOG(COMP_CORE, LVL_D, "%s\n", buffer);
  return 0;
}

int zunta_send_command(char (&buffer)[COMMAND_SIZE], char (&answer)[ANSWER_SIZE], const char* ip) {
  zunta_command_job job;
  std::memcpy(job.buffer, buffer, COMMAND_SIZE);
  std::memcpy(job.answer, answer, ANSWER_SIZE);
  job.ip = ip;
  run_batch(&job, 1, true);
  std::memcpy(answer, job.answer, ANSWER_SIZE);
  return job.result;
}

int zunta_make_and_send_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                                const char* arg2, char (&answer)[ANSWER_SIZE], const char* ip) {
  zunta_command_job job;
  job.index = index;
  job.value = value;
  job.arg1 = arg1;
  job.arg2 = arg2;
  job.ip = ip;
  std::memcpy(job.buffer, buffer, COMMAND_SIZE);  // keeps the leftovers behind the command line
  std::memcpy(job.answer, answer, ANSWER_SIZE);
  run_batch(&job, 1, false);
  std::memcpy(buffer, job.buffer, COMMAND_SIZE);
  std::memcpy(answer, job.answer, ANSWER_SIZE);
  return job.result;
}

void zunta_make_and_send_commands(zunta_command_job* jobs, std::size_t count) {
  run_batch(jobs, count, false);
}

// The exchange with a node agent: framing, one connection per command, markers, and repetition.
// Each command is a job whose exchange advances on poll events and deadlines, so one thread runs
// any number of them at once, as many at a time as there are exchange slots; a single command is
// a loop of one.
#include "commander/transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "commander/failures.h"
#include "core/log.h"
#include "core/platform.h"
#include "core/runtime.h"
#include "core/text.h"

char command[COMMAND_SIZE] = {};

namespace {

constexpr int64_t AGENT_TIMEOUT_US = 3000000;                 // connection, send, and each read
constexpr int64_t ANSWER_TIMEOUT_US = 10 * AGENT_TIMEOUT_US;  // the whole answer after the command
constexpr int64_t RETRY_PAUSE_US = 1000000;
// A job waiting for an exchange slot looks again at least this often (real time), besides every
// time the loop wakes for another job.
constexpr int64_t SLOT_RETRY_US = 10000;
// After a failed poll the loop sleeps this long (real time) before it polls again.
constexpr int64_t POLL_RETRY_US = 5000;
constexpr int64_t NEVER_US = INT64_MAX;
// The lines of an exchange name the procedure that owns the step, whichever helper of the state
// machine notices the event.
constexpr char EXCHANGE[] = "zunta_send_command";
constexpr char WRAPPER[] = "zunta_make_and_send_command";

enum phase : int { WAITING_SLOT, CONNECTING, SENDING, READING, PAUSING, DONE };
enum marker : int { NO_MARKER, ACK, NACK };

int32_t g_slots = 0;  // 0 until read
int32_t g_in_flight = 0;
int32_t g_in_flight_peak = 0;
bool g_short_reported = false;  // one line per spell of running out of sockets
bool g_poll_reported = false;   // one line per spell of failing polls

void start_exchange(zunta_command_job& job, int64_t now);

void close_socket(zunta_exchange_state& s) {
  if (s.fd < 0) return;
  close(s.fd);
  s.fd = -1;
  --g_in_flight;
}

// Descriptors, buffers or local ports ran out: nothing about the agent is known.
bool short_of_resources(int err) {
  return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM || err == EAGAIN ||
         err == EADDRNOTAVAIL;
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
// An answer cut by its bound is not asked for again: an agent that trickles costs one bound.
void after_exchange(zunta_command_job& job, int code, int64_t now) {
  zunta_exchange_state& s = job.state;
  s.last = code;
  if (s.single) {
    job.result = code;
    s.phase = DONE;
    return;
  }
  if (s.cut) {
    ZLOG_AS(WRAPPER, COMP_CORE, LVL_E, "Command %d to %s not repeated: its answer was cut\n", job.index,
            job.ip);
    job.result = 1;
    s.phase = DONE;
    zunta_count_failure(job.ip);
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

// The daemon has run out of sockets. While exchanges of its own are open, one of them will give
// its socket back: the job waits for it. With none open nothing will change soon, so the attempt
// counts as one that received nothing, and the repetitions and their pauses follow as for silence.
void out_of_sockets(zunta_command_job& job, int err, int64_t now) {
  zunta_exchange_state& s = job.state;
  close_socket(s);
  if (g_in_flight > 0) {
    s.phase = WAITING_SLOT;
    s.wake_us = now + SLOT_RETRY_US;
    return;
  }
  if (!g_short_reported) {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_E, "Out of sockets (%s): the exchange with %s counts as unanswered\n",
            std::strerror(err), job.ip);
  }
  g_short_reported = true;
  after_exchange(job, 1, now);
}

// The read loop has ended: the marker decides, else whether any answer text is held.
void end_reading(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  close_socket(s);
  if (s.cut) {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_E, "No complete answer from %s within %d ms\n", job.ip,
            static_cast<int>(zunta_scaled_us(ANSWER_TIMEOUT_US) / 1000));
  } else if (s.marker == NO_MARKER) {
    ZLOG_AS(EXCHANGE, COMP_CORE, LVL_E, "zero bytes received\n");
  }
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

// The two time-outs every agent socket carries. The exchange itself never blocks (its waits are the
// loop's, bounded by the same time-outs), but a socket handed on stays bounded.
bool set_time_outs(zunta_command_job& job, int64_t now) {
  const timeval limit = zunta_scaled_timeval(AGENT_TIMEOUT_US);
  if (setsockopt(job.state.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
    fail_exchange(job, "Error socket timeout option: reception\n", now);
    return false;
  }
  if (setsockopt(job.state.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
    fail_exchange(job, "Error socket timeout option: transmission\n", now);
    return false;
  }
  return true;
}

void start_exchange(zunta_command_job& job, int64_t now) {
  zunta_exchange_state& s = job.state;
  s.marker = NO_MARKER;
  s.sent = 0;
  s.text_seen = false;
  s.cut = false;
  if (g_in_flight >= zunta_exchange_slots()) {
    s.phase = WAITING_SLOT;
    s.wake_us = now + SLOT_RETRY_US;
    return;
  }
  s.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (s.fd < 0) {
    const int err = errno;
    if (short_of_resources(err)) return out_of_sockets(job, err, now);
    return fail_exchange(job, "Socket creation error \n", now);
  }
  g_short_reported = false;
  if (++g_in_flight > g_in_flight_peak) g_in_flight_peak = g_in_flight;
  if (!set_time_outs(job, now)) return;
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
  const int err = errno;
  if (err == EINPROGRESS || err == EINTR) return;
  if (short_of_resources(err)) return out_of_sockets(job, err, now);
  fail_exchange(job, "Connection Failed\n", now);
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
  if (n < 0 && (errno == ENOBUFS || errno == ENOMEM)) return out_of_sockets(job, errno, now);
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
    case WAITING_SLOT:
      return start_exchange(job, now);
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
      if (now >= s.answer_by_us) {
        s.cut = true;
        return end_reading(job, now);
      }
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

void begin_job(zunta_command_job& job, bool single) {
  const int64_t now = zunta_monotonic_us();
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

short awaited_events(const zunta_exchange_state& s) {
  if (s.fd < 0) return 0;
  if (s.phase == READING) return POLLIN;
  if (s.phase == CONNECTING || s.phase == SENDING) return POLLOUT;
  return 0;
}

void run_alone(zunta_command_job& job, bool single) {
  begin_job(job, single);
  zunta_command_job* one = &job;
  while (!zunta_job_done(&job))
    zunta_jobs_wait(&one, 1, NEVER_US);
}

}  // namespace

void zunta_exchange_slots_init() {
  rlimit files{};
  rlim_t limit = EXCHANGE_SLOTS_MAX + DAEMON_OWN_FILES;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY && files.rlim_cur < limit)
    limit = files.rlim_cur;
  const auto slots = static_cast<int32_t>(limit) - DAEMON_OWN_FILES;
  g_slots = slots < 1 ? 1 : slots;
}

int32_t zunta_exchange_slots() {
  if (g_slots == 0) zunta_exchange_slots_init();
  return g_slots;
}

int32_t zunta_exchanges_in_flight_peak() {
  return g_in_flight_peak;
}

void zunta_job_begin(zunta_command_job* job) {
  begin_job(*job, false);
}

bool zunta_job_done(const zunta_command_job* job) {
  return job->state.phase == DONE;
}

void zunta_jobs_wait(zunta_command_job* const* jobs, std::size_t count, int64_t wake_us) {
  // Only jobs holding a socket are polled, so the set never exceeds the slots, which stay below
  // the open-file limit (a larger set makes poll fail).
  pollfd fds[EXCHANGE_SLOTS_MAX];
  nfds_t polled = 0;
  int64_t wake = wake_us;
  for (std::size_t i = 0; i < count; ++i) {
    zunta_exchange_state& s = jobs[i]->state;
    if (s.phase == DONE) continue;
    if (s.wake_us < wake) wake = s.wake_us;
    const short events = awaited_events(s);
    if (events != 0 && polled < EXCHANGE_SLOTS_MAX) fds[polled++] = pollfd{s.fd, events, 0};
  }
  int64_t wait = wake - zunta_monotonic_us();
  if (wait < 0) wait = 0;
  const int64_t task_due = zunta_wait_tick_due_in_us();
  if (task_due < wait) wait = task_due;
  timespec limit{static_cast<time_t>(wait / 1000000), static_cast<long>((wait % 1000000) * 1000)};
  if (ppoll(fds, polled, &limit, nullptr) < 0) {
    const int err = errno;
    for (nfds_t i = 0; i < polled; ++i)
      fds[i].revents = 0;
    if (err != EINTR) {
      if (!g_poll_reported) ZLOG_AS(EXCHANGE, COMP_CORE, LVL_E, "poll failed: %s\n", std::strerror(err));
      g_poll_reported = true;
      const int64_t pause = wait < POLL_RETRY_US ? wait : POLL_RETRY_US;
      timespec rest{0, static_cast<long>(pause * 1000)};
      ppoll(nullptr, 0, &rest, nullptr);  // no descriptors: only the pause
    }
  } else {
    g_poll_reported = false;
  }
  const int64_t now = zunta_monotonic_us();
  nfds_t next = 0;
  for (std::size_t i = 0; i < count; ++i) {
    zunta_exchange_state& s = jobs[i]->state;
    if (s.phase == DONE) continue;
    short revents = 0;
    // The sockets were polled in job order; a job that holds one is matched by its descriptor.
    if (next < polled && fds[next].fd == s.fd && awaited_events(s) != 0) revents = fds[next++].revents;
    step_job(*jobs[i], revents, now);
  }
  zunta_wait_tick();
}

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
  run_alone(job, true);
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
  run_alone(job, false);
  std::memcpy(buffer, job.buffer, COMMAND_SIZE);
  std::memcpy(answer, job.answer, ANSWER_SIZE);
  return job.result;
}

void zunta_make_and_send_commands(zunta_command_job* jobs, std::size_t count) {
  if (count == 0) return;
  auto* all = static_cast<zunta_command_job**>(std::calloc(count, sizeof(zunta_command_job*)));
  if (all == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "Memory allocation error for the command batch, sending one by one\n");
    for (std::size_t i = 0; i < count; ++i)
      run_alone(jobs[i], false);
    return;
  }
  for (std::size_t i = 0; i < count; ++i) {
    all[i] = &jobs[i];
    begin_job(jobs[i], false);
  }
  for (;;) {
    bool active = false;
    for (std::size_t i = 0; i < count && !active; ++i)
      active = !zunta_job_done(all[i]);
    if (!active) break;
    zunta_jobs_wait(all, count, NEVER_US);
  }
  std::free(all);
}

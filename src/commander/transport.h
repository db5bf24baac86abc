// The node agent command channel: one 1024-byte command per TCP connection, answered by text
// lines and the marker "ack" or "nack", and the repetition of refused or silent exchanges. Every
// exchange is a non-blocking state machine, so one event loop on the one thread runs any number of
// commands to different agents at once.
#ifndef ZUNTA_COMMANDER_TRANSPORT_H_
#define ZUNTA_COMMANDER_TRANSPORT_H_

#include <cstddef>
#include <cstdint>

constexpr std::size_t COMMAND_SIZE = 1024;
constexpr std::size_t ANSWER_SIZE = 1024;
constexpr int32_t COMMAND_INDEX_MAX = 11;
constexpr int COMMAND_RETRIES = 20;

// Placeholders where a command needs no address or no MAC.
constexpr char PLACEHOLDER_IP[] = "127.0.0.1";
constexpr char ZERO_MAC[] = "00:00:00:00:00:00";

// Command indexes (3 and 7 exist in the framing but are never sent).
enum : int32_t {
  CMD_SEND_ATH_MAC = 0,
  CMD_GET_MESH_LIST = 1,
  CMD_SET_PATTERN = 2,
  CMD_START_DUMP = 4,
  CMD_STOP_TRAINING = 5,
  CMD_START_MESH_OPTIMIZATION = 6,
  CMD_START_TRAINING = 8,
  CMD_GET_MODULE_CLIENT_LIST = 9,
  CMD_SET_PATTERN_TX = 10,
  CMD_SET_PATTERN_RX = 11,
};

// The global command buffer through which the coordinator sends every command.
extern char command[COMMAND_SIZE];

// --- Transport ---

// Writes "index,value,arg1 arg2\n" into buffer (cut to 1023 characters, NUL-terminated; the bytes
// after the NUL are left as they were). -1 when index > 11.
int zunta_make_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                       const char* arg2);

// One exchange with the agent at the dotted IPv4 text ip: sends all 1024 bytes of buffer on a
// fresh connection and reads until "ack" or "nack". The connection and every read wait at most
// 3 s; the answer and its marker must arrive within 30 s of the command, however slowly the bytes
// come. Answer text read before the marker is appended to answer (kept NUL-terminated; what does
// not fit is dropped).
// Returns 0 ack, 1 nack or nothing received, 2 text without a marker, -1 local failure (no
// connection attempt is made for an ip that is not dotted IPv4). When the daemon is out of
// sockets the exchange waits for one of its own to close, or, with none open, counts as nothing
// received (1).
int zunta_send_command(char (&buffer)[COMMAND_SIZE], char (&answer)[ANSWER_SIZE], const char* ip);

// Builds the command and sends it, repeating a refused, silent or unmarked exchange up to 20 more
// times at one-second pauses, with the answer text of every attempt accumulating. An exchange cut
// by the 30-s bound of the whole answer is not repeated: the command fails. Returns 0 when
// acknowledged or answered without a marker, 1 when still refused or silent (or cut), -1 when the
// command cannot be built or an exchange fails locally (the first one without any repetition).
int zunta_make_and_send_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                                const char* arg2, char (&answer)[ANSWER_SIZE], const char* ip);

// Appends the text of one read of an attempt to answer (kept NUL-terminated, excess dropped). The
// first read of every attempt after the first (first_of_retry) drops the unterminated tail left by
// the previous attempt, so a cut line is never glued to the next attempt's first line.
void zunta_answer_append(char (&answer)[ANSWER_SIZE], const char* text, std::size_t len, bool first_of_retry);

// --- Exchange slots ---

// Exchanges in flight at once, each holding one socket: the open-file limit less the daemon's own
// files, at least 1 and at most EXCHANGE_SLOTS_MAX. Read once, at start-up (or at the first
// exchange).
constexpr int32_t EXCHANGE_SLOTS_MAX = 256;
constexpr int32_t DAEMON_OWN_FILES =
    8;  // standard streams, discovery socket, configuration, status and dump files
void zunta_exchange_slots_init();
int32_t zunta_exchange_slots();
// The most exchanges that were in flight at once since start-up.
int32_t zunta_exchanges_in_flight_peak();

// --- Commands as jobs of one event loop ---

// Exchange state of one job, private to the transport.
struct zunta_exchange_state {
  int fd;
  int phase;
  int marker;
  int counter;           // repetitions made so far
  int last;              // result of the last exchange
  bool retrying;         // the exchange under way is a repetition
  bool text_seen;        // this attempt has appended text
  bool single;           // one exchange of a framed buffer, no repetition
  bool cut;              // the last exchange was cut by the bound of the whole answer
  std::size_t sent;      // bytes of the command sent so far
  int64_t wake_us;       // monotonic deadline of the current wait
  int64_t answer_by_us;  // monotonic deadline of the whole answer
};

// One command, run with others by one event loop. The caller fills index, value, arg1, arg2 and ip
// (the texts must outlive the job) and clears answer; the job frames the command into buffer and
// leaves the accumulated answer text and the result (as zunta_make_and_send_command: 0, 1 or -1).
struct zunta_command_job {
  int32_t index;
  int32_t value;
  const char* arg1;
  const char* arg2;
  const char* ip;
  char buffer[COMMAND_SIZE];
  char answer[ANSWER_SIZE];
  int result;
  zunta_exchange_state state;
};

// Frames the job's command (logging it as zunta_make_and_send_command does) and starts its first
// exchange, or its wait for a free exchange slot. The job may be done at once (a command that
// cannot be built, an address that is not IPv4).
void zunta_job_begin(zunta_command_job* job);
bool zunta_job_done(const zunta_command_job* job);

// One wait of an event loop that drives jobs: sleeps until a socket of the jobs is ready, a job's
// deadline passes, `wake_us` (monotonic microseconds, see zunta_monotonic_us) passes or the wait
// task is due, runs the wait task, and advances every job that is not done by what happened.
// Never sleeps when something is already due; never spins when poll fails (it then waits a few
// milliseconds, and the jobs go on by their deadlines).
void zunta_jobs_wait(zunta_command_job* const* jobs, std::size_t count, int64_t wake_us);

// Runs zunta_make_and_send_command for every job at once: each job's exchanges, time-outs,
// repetitions (with their 1-s pauses) and log lines are as if it ran alone; no job waits for
// another, except for a free exchange slot. Returns when every job has its result.
void zunta_make_and_send_commands(zunta_command_job* jobs, std::size_t count);

#endif  // ZUNTA_COMMANDER_TRANSPORT_H_

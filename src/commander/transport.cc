// The exchange with a node agent: framing, one connection per command, markers, and repetition.
#include "commander/transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "core/fd.h"
#include "core/log.h"
#include "core/platform.h"
#include "core/runtime.h"
#include "core/text.h"

char command[COMMAND_SIZE] = {};

namespace {

constexpr int64_t AGENT_TIMEOUT_US = 3000000;
constexpr int64_t RETRY_PAUSE_US = 1000000;

enum class marker { none, ack, nack };

// The local steps of an exchange that can fail, with the line each failure logs.
enum connect_step : int {
  CONNECTED,
  NO_SOCKET,
  NO_RECEIVE_TIMEOUT,
  NO_SEND_TIMEOUT,
  BAD_ADDRESS,
  NOT_CONNECTED
};
constexpr const char* CONNECT_FAILURES[] = {
    "",
    "Socket creation error \n",
    "Error socket timeout option: reception\n",
    "Error socket timeout option: transmission\n",
    "Invalid address or address not supported\n",
    "Connection Failed\n",
};

// Socket, time-outs, address and connection; the socket is valid only when CONNECTED.
connect_step connect_agent(const char* ip, unique_fd* sock) {
  sock->reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!sock->valid()) return NO_SOCKET;
  timeval timeout = zunta_scaled_timeval(AGENT_TIMEOUT_US);
  if (setsockopt(sock->get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0)
    return NO_RECEIVE_TIMEOUT;
  // On Linux the send time-out also bounds the connection attempt.
  if (setsockopt(sock->get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) return NO_SEND_TIMEOUT;
  sockaddr_in agent{};
  agent.sin_family = AF_INET;
  agent.sin_port = htons(zunta_agent_port());
  if (ip == nullptr || inet_pton(AF_INET, ip, &agent.sin_addr) != 1) return BAD_ADDRESS;
  if (connect(sock->get(), reinterpret_cast<sockaddr*>(&agent), sizeof agent) != 0) return NOT_CONNECTED;
  return CONNECTED;
}

// Reads chunks until a marker, the peer's close, an error or a time-out. Text of the chunks before
// the marker goes to the answer; the chunk that carries the marker is not kept, because agents
// write the marker last, on its own.
marker read_until_marker(int fd, char (&answer)[ANSWER_SIZE]) {
  char chunk[ANSWER_SIZE + 1];  // one read of at most 1024 bytes, always terminated
  for (;;) {
    std::memset(chunk, 0, sizeof chunk);
    ssize_t got = recv(fd, chunk, ANSWER_SIZE, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return marker::none;
    if (std::strstr(chunk, "nack") != nullptr) return marker::nack;
    if (std::strstr(chunk, "ack") != nullptr) return marker::ack;
    zunta_append_text(answer, sizeof answer, chunk, static_cast<std::size_t>(got));
  }
}

}  // namespace

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
  unique_fd sock;
  connect_step step = connect_agent(ip, &sock);
  if (step != CONNECTED) {
    ZLOG(COMP_CORE, LVL_E, "%s", CONNECT_FAILURES[step]);
    return -1;
  }
  // MSG_NOSIGNAL: an agent that has already closed must not end the daemon with SIGPIPE.
  if (send(sock.get(), buffer, sizeof buffer, MSG_NOSIGNAL) < 0) {
    ZLOG(COMP_CORE, LVL_E, "Unable to send message to the server\n");
    return -1;
  }
  marker seen = read_until_marker(sock.get(), answer);
  sock.reset();
  if (seen == marker::none) ZLOG(COMP_CORE, LVL_E, "zero bytes received\n");
  if (seen == marker::ack) {
    ZLOG(COMP_CORE, LVL_D, "ACK received\n");
    return 0;
  }
  if (seen == marker::nack) {
    ZLOG(COMP_CORE, LVL_D, "NACK received\n");
    return 1;
  }
  if (answer[0] != '\0') {
    ZLOG(COMP_CORE, LVL_I, "No ACK or NACK received: `%s`, returning (2)\n", answer);
    return 2;
  }
  ZLOG(COMP_CORE, LVL_D, "No response from the slave, assuming NACK\n");
  return 1;
}

int zunta_make_and_send_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                                const char* arg2, char (&answer)[ANSWER_SIZE], const char* ip) {
  ZLOG(COMP_CORE, LVL_D, "CMD %d to %s - SET\n", index, ip);
  if (zunta_make_command(buffer, index, value, arg1, arg2) == -1) {
    ZLOG(COMP_CORE, LVL_E, "Error during command generation\n");
    return -1;
  }
  int result = zunta_send_command(buffer, answer, ip);
  if (result == -1) {
    ZLOG(COMP_CORE, LVL_E, "Error while sending command\n");
    return -1;
  }
  for (int counter = 0; result > 0 && counter < COMMAND_RETRIES; ++counter) {
    result = zunta_send_command(buffer, answer, ip);
    if (result == -1) ZLOG(COMP_CORE, LVL_E, "Error while sending command (%d)\n", counter);
    zunta_pause_us(RETRY_PAUSE_US);
  }
  if (result == 1) {
    ZLOG(COMP_CORE, LVL_I, "Maximum number of requests is reached\n");
    return 1;
  }
  // A repetition that failed locally (the agent vanished between attempts) means the command did
  // not go through: it is reported as a failure, and text gathered by earlier attempts is not
  // handed on as if it were the answer.
  if (result == -1) return -1;
  ZLOG(COMP_CORE, LVL_D, "RESPONSE %d: %s\n", index, answer);
  return 0;
}

// Placeholder until the concurrent exchange engine lands: one job after the other.
void zunta_make_and_send_commands(zunta_command_job* jobs, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    zunta_command_job& j = jobs[i];
    j.result = zunta_make_and_send_command(j.buffer, j.index, j.value, j.arg1, j.arg2, j.answer, j.ip);
  }
}

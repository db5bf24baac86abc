// zunta-meshsim: runs a simulated mesh of node agents on loopback addresses, generates random
// meshes, and sends control lines to a running simulator.
#include <getopt.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fd.h"
#include "meshsim/generate.h"
#include "meshsim/simulator.h"

namespace {

constexpr char USAGE[] =
    "Usage: zunta-meshsim [OPTIONS] TOPOLOGY_FILE\n"
    "       zunta-meshsim --generate N [--seed S] [--base 127.A.B]\n"
    "       zunta-meshsim --send CONTROL_SOCKET 'CONTROL LINE'\n"
    "\n"
    "Simulates the node agents and the discovery responder of a mesh on loopback addresses.\n"
    "Every node of TOPOLOGY_FILE gets a TCP agent on its own 127.x.y.z address; the format of the\n"
    "file, the faults and the radio model are described in tools/meshsim/README.md.\n"
    "\n"
    "Options:\n"
    "  --agent-port P          TCP port of every node agent (default 12458)\n"
    "  --discovery-address A   address the discovery responder binds: 127.255.255.255 (default)\n"
    "                          receives requests broadcast on loopback; a 127.x.y.255 address\n"
    "                          receives requests sent to it directly\n"
    "  --discovery-port P      UDP port of the discovery responder (default 12101)\n"
    "  --no-discovery          do not answer discovery requests\n"
    "  --marker-gap MS         pause between an answer's text and its \"ack\" (default 50)\n"
    "  --frame-timeout MS      a command frame not complete by then is refused (default 3000)\n"
    "  --seed S                seed of the radio model and the noise (default: the file's, else 1)\n"
    "  --relocate 127.A.B      move every node IP into 127.A.B.x, keeping its last number\n"
    "  --control PATH          Unix socket for control lines (one per line, answered \"ok\",\n"
    "                          \"error: ...\" or the node state for \"show NAME\")\n"
    "  --record PATH           write every received command and every measurement window (once\n"
    "                          stopped) as a JSON line to PATH\n"
    "  --quiet                 do not log refused frames and commands on stderr\n"
    "  --generate N            write a random topology of N nodes to standard output\n"
    "  --base 127.A.B          first /24 of the generated addresses (default 127.0.100)\n"
    "  --send PATH LINE        send one control line to a running simulator, print the reply\n"
    "  --help                  this text\n"
    "\n"
    "Topology file, one statement a line ('#' starts a comment; PEER is a node name or a MAC):\n"
    "  seed S | noise PERCENT\n"
    "  node NAME 127.x.y.z MAC [VALUE [ETH]]       a node (z in 1..254)\n"
    "  client NAME MAC[,EXTRA...]                  a command 9 line of the node\n"
    "  neighbour NAME PEER [RADIO [PATTERN]]       a command 1 line of the node\n"
    "  table NAME PEER V00 .. V33                  kbit/s, row = NAME's pattern, column = PEER's\n"
    "  gains NAME G0 G1 G2 G3 | link NAME PEER BASE_KBPS | mesh NAME PEER BASE_KBPS\n"
    "  fault NAME KIND [ARG] [on=I,J] | fault NAME KIND off | fault NAME none\n"
    "    KIND: nack N, nack_always, silent, no_marker, cut, refuse, delay MS, same_send, garbage,\n"
    "          radio N, no_peer_line, no_discovery, dup_discovery, trickle MS, eth_lines N,\n"
    "          claim_mac MAC\n"
    "Control lines: any statement, del node|client|neighbour|link|mesh NAME [PEER], show NAME.\n"
    "\n"
    "Stops cleanly on SIGINT and SIGTERM.\n";

enum option_id {
  OPT_AGENT_PORT = 256,
  OPT_DADDR,
  OPT_DPORT,
  OPT_NO_DISC,
  OPT_GAP,
  OPT_FRAME_TIMEOUT,
  OPT_SEED,
  OPT_RELOCATE,
  OPT_CONTROL,
  OPT_RECORD,
  OPT_QUIET,
  OPT_GENERATE,
  OPT_BASE,
  OPT_SEND,
  OPT_HELP
};

constexpr option LONG_OPTIONS[] = {
    {"agent-port", required_argument, nullptr, OPT_AGENT_PORT},
    {"discovery-address", required_argument, nullptr, OPT_DADDR},
    {"discovery-port", required_argument, nullptr, OPT_DPORT},
    {"no-discovery", no_argument, nullptr, OPT_NO_DISC},
    {"marker-gap", required_argument, nullptr, OPT_GAP},
    {"frame-timeout", required_argument, nullptr, OPT_FRAME_TIMEOUT},
    {"seed", required_argument, nullptr, OPT_SEED},
    {"relocate", required_argument, nullptr, OPT_RELOCATE},
    {"control", required_argument, nullptr, OPT_CONTROL},
    {"record", required_argument, nullptr, OPT_RECORD},
    {"quiet", no_argument, nullptr, OPT_QUIET},
    {"generate", required_argument, nullptr, OPT_GENERATE},
    {"base", required_argument, nullptr, OPT_BASE},
    {"send", required_argument, nullptr, OPT_SEND},
    {"help", no_argument, nullptr, OPT_HELP},
    {nullptr, 0, nullptr, 0},
};

struct cli {
  meshsim::sim_config config;
  int generate = 0;
  std::string base = "127.0.100";
  std::string send_path;
  bool help = false;
};

bool number(const char* text, long low, long high, long* out) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < low || v > high) return false;
  *out = v;
  return true;
}

bool take_option(int id, const char* arg, cli* c) {
  long v = 0;
  switch (id) {
    case OPT_AGENT_PORT:
      return number(arg, 1, 65535, &v) && (c->config.agent_port = static_cast<uint16_t>(v), true);
    case OPT_DPORT:
      return number(arg, 1, 65535, &v) && (c->config.discovery_port = static_cast<uint16_t>(v), true);
    case OPT_GAP:
      return number(arg, 0, 600000, &v) && (c->config.marker_gap_ms = static_cast<int>(v), true);
    case OPT_FRAME_TIMEOUT:
      return number(arg, 1, 600000, &v) && (c->config.frame_timeout_ms = static_cast<int>(v), true);
    case OPT_SEED:
      return number(arg, 0, 2147483647, &v) && (c->config.seed = v, true);
    case OPT_GENERATE:
      return number(arg, 1, meshsim::GENERATE_MAX_NODES, &v) && (c->generate = static_cast<int>(v), true);
    case OPT_DADDR:
      c->config.discovery_address = arg;
      return true;
    case OPT_NO_DISC:
      c->config.discovery = false;
      return true;
    case OPT_RELOCATE:
      c->config.relocate_base = arg;
      return true;
    case OPT_CONTROL:
      c->config.control_path = arg;
      return true;
    case OPT_RECORD:
      c->config.record_path = arg;
      return true;
    case OPT_QUIET:
      c->config.log = false;
      return true;
    case OPT_BASE:
      c->base = arg;
      return true;
    case OPT_SEND:
      c->send_path = arg;
      return true;
    case OPT_HELP:
      c->help = true;
      return true;
    default:
      return false;
  }
}

bool read_whole_file(const char* path, std::string* text) {
  unique_file f(std::fopen(path, "r"));
  if (!f) return false;
  char buf[4096];
  for (std::size_t got; (got = std::fread(buf, 1, sizeof buf, f.get())) > 0;)
    text->append(buf, got);
  return !std::ferror(f.get());
}

// Sends one control line and prints the reply line. Exit status 0 unless the reply is an error.
int send_control(const std::string& path, const std::string& line) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return 2;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid() || connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    std::fprintf(stderr, "zunta-meshsim: cannot connect to %s: %s\n", path.c_str(), std::strerror(errno));
    return 2;
  }
  std::string out = line + "\n";
  if (send(fd.get(), out.data(), out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(out.size())) return 2;
  std::string reply;
  char c = 0;
  while (recv(fd.get(), &c, 1, 0) == 1 && c != '\n')
    reply += c;
  std::printf("%s\n", reply.c_str());
  return reply.compare(0, 6, "error:") == 0 ? 1 : 0;
}

int run(const cli& c, const char* topology_path) {
  meshsim::sim_config config = c.config;
  if (!read_whole_file(topology_path, &config.topology)) {
    std::fprintf(stderr, "zunta-meshsim: cannot read %s\n", topology_path);
    return 2;
  }
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);  // the loop thread inherits the mask
  signal(SIGPIPE, SIG_IGN);
  meshsim::mesh_simulator sim;
  std::string error;
  if (sim.start(config, &error) != 0) {
    std::fprintf(stderr, "zunta-meshsim: %s\n", error.c_str());
    return 1;
  }
  std::fprintf(stderr, "zunta-meshsim: agents on port %u, discovery %s:%u%s\n", config.agent_port,
               config.discovery_address.c_str(), config.discovery_port, config.discovery ? "" : " (off)");
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  sim.stop();
  std::fprintf(stderr, "zunta-meshsim: stopped by signal %d\n", signal_number);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  cli c;
  for (int id; (id = getopt_long(argc, argv, "", LONG_OPTIONS, nullptr)) != -1;) {
    if (!take_option(id, optarg, &c)) {
      std::fprintf(stderr, "zunta-meshsim: bad option or value (try --help)\n");
      return 2;
    }
  }
  if (c.help) {
    std::fputs(USAGE, stdout);
    return 0;
  }
  if (!c.send_path.empty()) {
    if (optind + 1 != argc) return std::fputs(USAGE, stderr), 2;
    return send_control(c.send_path, argv[optind]);
  }
  if (c.generate > 0) {
    std::string text, error;
    if (meshsim::generate_topology(c.generate, c.config.seed < 0 ? 1 : c.config.seed, c.base, &text,
                                   &error) != 0) {
      std::fprintf(stderr, "zunta-meshsim: %s\n", error.c_str());
      return 2;
    }
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  if (optind + 1 != argc) return std::fputs(USAGE, stderr), 2;
  return run(c, argv[optind]);
}

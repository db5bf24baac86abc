// The coordinator object, the master record and start-up of the discovery socket.
#include "coordinator/coordinator.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include "coordinator/options.h"
#include "core/log.h"
#include "core/platform.h"
#include "core/runtime.h"

namespace {

struct coordinator g_coordinator_state;  // zero until zunta_coordinator_init

// Allocated at start-up and freed on the exit path; nothing reads it.
struct master_record {
  int32_t reserved[4];
};
master_record* g_master = nullptr;

constexpr int64_t DISCOVERY_RECEIVE_TIMEOUT_US = 2000000;
constexpr int64_t DISCOVERY_SEND_TIMEOUT_US = 1000000;
// Room for the answers of a few hundred nodes arriving at once; the kernel may grant less.
constexpr int DISCOVERY_RECEIVE_BUFFER_BYTES = 1 << 20;

}  // namespace

struct coordinator* coordinator = &g_coordinator_state;

int master_init(int /*argc*/, char** /*argv*/) {
  g_master = static_cast<master_record*>(std::calloc(1, sizeof(master_record)));
  if (g_master == nullptr) {
    std::fputs("Memory allocation failed for master\n", stderr);  // logging is not up yet
    return -1;
  }
  log_init(LVL_U, -1);
  return 0;
}

void master_free() {
  std::free(g_master);
  g_master = nullptr;
}

int zunta_coordinator_init(struct coordinator* coordinator, const options* opts) {
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return -1;
  }
  coordinator->sockfd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (coordinator->sockfd < 0) {
    ZLOG(COMP_CORE, LVL_E, "Socket creation error\n");
    return -1;
  }
  int enable = 1;
  if (setsockopt(coordinator->sockfd, SOL_SOCKET, SO_BROADCAST, &enable, sizeof enable) != 0) {
    ZLOG(COMP_CORE, LVL_E, "Socket option 2 error\n");
    return -1;
  }
  timeval receive_timeout = zunta_scaled_timeval(DISCOVERY_RECEIVE_TIMEOUT_US);
  timeval send_timeout = zunta_scaled_timeval(DISCOVERY_SEND_TIMEOUT_US);
  setsockopt(coordinator->sockfd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout);
  setsockopt(coordinator->sockfd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
  int receive_buffer = DISCOVERY_RECEIVE_BUFFER_BYTES;
  setsockopt(coordinator->sockfd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);

  coordinator->broadcast_addr = sockaddr_in{};
  coordinator->broadcast_addr.sin_family = AF_INET;
  coordinator->broadcast_addr.sin_port = htons(opts->broadcast_port);
  coordinator->broadcast_addr.sin_addr.s_addr = inet_addr(opts->broadcast_address);

  INIT_SA_LIST_HEAD(&coordinator->ath_list);
  coordinator->ath_count = 0;
  INIT_SA_LIST_HEAD(&coordinator->mesh_pair_list);
  coordinator->mesh_pair_count = 0;
  INIT_SA_LIST_HEAD(&coordinator->trained_mesh_pair_list);
  coordinator->trained_mesh_pair_count = 0;
  INIT_SA_LIST_HEAD(&coordinator->mesh_link_list);
  coordinator->mesh_link_count = 0;
  INIT_SA_LIST_HEAD(&coordinator->module_client_list);
  coordinator->module_client_count = 0;

  coordinator->last_broadcast_ms = static_cast<uint32_t>(uptime_ms());
  coordinator->discovery_started = 0;
  coordinator->discovery_check_sender = opts->discovery_check_sender;
  coordinator->last_hour = 25;  // no clock hour has it
  coordinator->period_base_minute = 0;
  return 0;
}

void zunta_reset_coordinator_counters(struct coordinator* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return;
  }
  coordinator->mesh_pair_count = 0;
  coordinator->mesh_link_count = 0;
}

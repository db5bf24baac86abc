// The agents given up on until the next discovery, a short table searched by IP text.
#include "registry/unanswering.h"

#include "core/log.h"
#include "core/text.h"

namespace {

struct unanswering_agent {
  char ip[IP_TEXT_SIZE];
  uint8_t where;
};

unanswering_agent g_agents[UNANSWERING_AGENTS_MAX];
int32_t g_count = 0;

unanswering_agent* find(const char* ip) {
  for (int32_t i = 0; i < g_count; ++i) {
    if (zunta_text_equal(g_agents[i].ip, ip, IP_TEXT_SIZE)) return &g_agents[i];
  }
  return nullptr;
}

}  // namespace

void zunta_note_unanswering_agent(const char* ip, int32_t index, uint8_t where) {
  if (ip == nullptr) return;
  unanswering_agent* agent = find(ip);
  if (agent == nullptr) {
    if (g_count == UNANSWERING_AGENTS_MAX) return;
    agent = &g_agents[g_count++];
    zunta_copy_text(agent->ip, ip);
    agent->where = 0;
    ZLOG(COMP_ATH, LVL_W,
         "Agent at %s left command %d unanswered: not asked again until the next discovery\n", agent->ip,
         index);
  }
  agent->where |= where;
}

bool zunta_agent_unanswering(const char* ip, uint8_t where) {
  const unanswering_agent* agent = ip != nullptr ? find(ip) : nullptr;
  return agent != nullptr && (agent->where & where) != 0;
}

void zunta_forget_unanswering_agents() {
  g_count = 0;
}

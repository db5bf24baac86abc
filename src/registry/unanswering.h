// Node agents the daemon has given up on until the next discovery: an agent that left a command
// refused or unanswered after all its repetitions is not asked again in the registry steps of the
// cycle, so a dead agent costs one command's attempts per discovery, not one per line it announced
// or per peer it should learn of. Parallel training notes the nodes that stopped a pair, and the
// application of the patterns that follows passes them over.
#ifndef ZUNTA_REGISTRY_UNANSWERING_H_
#define ZUNTA_REGISTRY_UNANSWERING_H_

#include <cstdint>

// Where the agent failed; an agent may be noted for both.
enum : uint8_t {
  AGENT_FAILED_REGISTRY = 1,  // commands 9, 0, 6 and 1
  AGENT_FAILED_TRAINING = 2,  // a command of a pair trained in parallel
};
constexpr int32_t UNANSWERING_AGENTS_MAX = 1024;  // beyond them an agent is asked as usual

// Notes the agent at ip. The first note of an agent logs one line naming it and the command.
void zunta_note_unanswering_agent(const char* ip, int32_t index, uint8_t where);
// True when the agent at ip was noted for one of the places in `where`.
bool zunta_agent_unanswering(const char* ip, uint8_t where);
// A fresh discovery: every agent is asked again.
void zunta_forget_unanswering_agents();

#endif  // ZUNTA_REGISTRY_UNANSWERING_H_

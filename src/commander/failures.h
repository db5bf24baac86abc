// How many commands to each node agent have failed since start-up: a command counts once when it
// is still refused, unanswered or failing locally after all its repetitions. Shown to operators
// next to each node; never reset.
#ifndef ZUNTA_COMMANDER_FAILURES_H_
#define ZUNTA_COMMANDER_FAILURES_H_

#include <cstdint>

// Agents counted at most; a command to an agent beyond them is not counted (nothing else changes).
constexpr int32_t FAILURE_TABLE_SLOTS = 4096;

// Counts one failed command to the agent at the dotted IPv4 text ip (anything else is ignored).
void zunta_count_failure(const char* ip);
// Failed commands to the agent at ip since start-up; 0 for an agent never counted.
uint32_t zunta_exchange_failures(const char* ip);

#endif  // ZUNTA_COMMANDER_FAILURES_H_

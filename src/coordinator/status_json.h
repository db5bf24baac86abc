// The JSON status document for tools and the status page: the version, the time, the schedule,
// the training pass under way, every registered node, and every mesh pair and trained pair with its
// sixteen rounds and its gain over the default patterns. Written whenever the status file is, and
// during a training pass from inside its waits.
#ifndef ZUNTA_COORDINATOR_STATUS_JSON_H_
#define ZUNTA_COORDINATOR_STATUS_JSON_H_

#include <cstdint>

struct coordinator;
struct options;

// While a pass runs the document is rewritten at least this often (scaled like every wait); the
// waits run the task a little late at times, so the period keeps a margin below 5 s.
constexpr int64_t STATUS_JSON_PASS_PERIOD_US = 4000000;

// Replaces the document (zunta_status_json_path()) by rename. 0, or -1 when it cannot be made or
// written: the previous document stays, and one error line is logged for a run of failures.
int zunta_status_json_write(struct coordinator* coordinator, const options* opts);

// Makes the waits rewrite the document while a training pass runs (zunta_pass_state()). `opts`
// must stay valid until zunta_status_json_unwatch().
void zunta_status_json_watch(const options* opts);
void zunta_status_json_unwatch();

#endif  // ZUNTA_COORDINATOR_STATUS_JSON_H_

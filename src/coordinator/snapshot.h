// The status snapshot: a small JSON-style file rewritten several times per cycle.
#ifndef ZUNTA_COORDINATOR_SNAPSHOT_H_
#define ZUNTA_COORDINATOR_SNAPSHOT_H_

struct coordinator;
struct options;

constexpr char ZUNTA_VERSION[] = "2.11";
constexpr char ZUNTA_BUILD[] = "(B251017.0000)";

// Rewrites the snapshot file (zunta_snapshot_path()). 0, or -1 when it cannot be opened (the old
// file then stays as it was).
int zunta_snapshot_info(struct coordinator* coordinator, const options* opts);

#endif  // ZUNTA_COORDINATOR_SNAPSHOT_H_

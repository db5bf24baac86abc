// The status snapshot: a small JSON-style file replaced several times per cycle.
#ifndef ZUNTA_COORDINATOR_SNAPSHOT_H_
#define ZUNTA_COORDINATOR_SNAPSHOT_H_

struct coordinator;
struct options;

constexpr char ZUNTA_VERSION[] = "2.11";
constexpr char ZUNTA_BUILD[] = "(B251017.0000)";

// Replaces the snapshot file (zunta_snapshot_path()) with a new document, by rename. 0, or -1 when
// the new file cannot be created or written (one error line; the previous document stays). The JSON
// status document is written after it in every case (status_json.h).
int zunta_snapshot_info(struct coordinator* coordinator, const options* opts);

#endif  // ZUNTA_COORDINATOR_SNAPSHOT_H_

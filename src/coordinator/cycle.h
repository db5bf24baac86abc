// Start-up and the control cycle of the daemon.
#ifndef ZUNTA_COORDINATOR_CYCLE_H_
#define ZUNTA_COORDINATOR_CYCLE_H_

// Starts logging, loads the options, refuses to run on a node that is not the mesh root,
// initialises the coordinator and runs the control cycle. Returns 0 on every exit path after
// start-up, -1 when master_init fails.
int zunta_main(int argc, char** argv);

#endif  // ZUNTA_COORDINATOR_CYCLE_H_

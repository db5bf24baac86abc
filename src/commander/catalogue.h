// The command catalogue: the commands addressed by IP and MAC texts. Commands addressed to a node
// record live with the registry; the round result (command 5) lives with the training.
#ifndef ZUNTA_COMMANDER_CATALOGUE_H_
#define ZUNTA_COMMANDER_CATALOGUE_H_

#include <cstdint>

#include "commander/transport.h"
#include "core/text.h"

// Each returns 0 when the command went through, -1 otherwise.

// Any command whose answer text is not wanted, with a fresh answer buffer.
int zunta_send_without_answer(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                              const char* arg2, const char* ip);

int zunta_set_pattern(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac, int32_t pattern);  // 2
// Command 2 with "1.<m>.0.<fallback>" in arg1.
int zunta_set_pattern_with_fallback(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                                    int32_t pattern, int32_t fallback, int32_t m);
int zunta_start_dump(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac);          // 4
int zunta_start_training(char (&buffer)[COMMAND_SIZE], const char* ip, const char* peer_ip);  // 8
int zunta_set_pattern_tx(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                         int32_t pattern);                                                // 10
int zunta_set_pattern_rx(char (&buffer)[COMMAND_SIZE], const char* ip, int32_t pattern);  // 11

// --- The same commands as jobs of a batch (zunta_make_and_send_commands) ---
// Each fills the job's command and clears its answer; the texts must outlive the batch. The
// command sent is exactly the one the wrapper of the same name sends.

void zunta_fill_job(zunta_command_job* job, int32_t index, int32_t value, const char* arg1, const char* arg2,
                    const char* ip);
// The fallback text "1.<m>.0.<fallback>" of command 2.
void zunta_format_fallback(char (&text)[IP_TEXT_SIZE], int32_t fallback, int32_t m);
void zunta_job_set_pattern_with_fallback(zunta_command_job* job, const char* ip, const char* mac,
                                         int32_t pattern, const char* fallback_text);
void zunta_job_start_dump(zunta_command_job* job, const char* ip, const char* mac);
void zunta_job_start_training(zunta_command_job* job, const char* ip, const char* peer_ip);

#endif  // ZUNTA_COMMANDER_CATALOGUE_H_

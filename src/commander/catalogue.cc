// The command catalogue: one thin wrapper per command addressed by IP and MAC texts.
#include <cstdint>

#include "commander/catalogue.h"
#include "core/log.h"
#include "core/text.h"

int zunta_send_without_answer(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                              const char* arg2, const char* ip) {
  char answer[ANSWER_SIZE] = {};
  return zunta_make_and_send_command(buffer, index, value, arg1, arg2, answer, ip) == 0 ? 0 : -1;
}

int zunta_set_pattern(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac, int32_t pattern) {
  return zunta_send_without_answer(buffer, CMD_SET_PATTERN, pattern, PLACEHOLDER_IP, mac, ip);
}

int zunta_set_pattern_with_fallback(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                                    int32_t pattern, int32_t fallback, int32_t m) {
  char fallback_text[IP_TEXT_SIZE] = "000.000.000.000";
  zunta_format_fallback(fallback_text, fallback, m);
  return zunta_send_without_answer(buffer, CMD_SET_PATTERN, pattern, fallback_text, mac, ip);
}

int zunta_start_dump(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac) {
  return zunta_send_without_answer(buffer, CMD_START_DUMP, -1, PLACEHOLDER_IP, mac, ip);
}

int zunta_start_training(char (&buffer)[COMMAND_SIZE], const char* ip, const char* peer_ip) {
  return zunta_send_without_answer(buffer, CMD_START_TRAINING, -1, peer_ip, ZERO_MAC, ip);
}

int zunta_set_pattern_tx(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac, int32_t pattern) {
  return zunta_send_without_answer(buffer, CMD_SET_PATTERN_TX, pattern, PLACEHOLDER_IP, mac, ip);
}

int zunta_set_pattern_rx(char (&buffer)[COMMAND_SIZE], const char* ip, int32_t pattern) {
  return zunta_send_without_answer(buffer, CMD_SET_PATTERN_RX, pattern, PLACEHOLDER_IP, ZERO_MAC, ip);
}

void zunta_fill_job(zunta_command_job* job, int32_t index, int32_t value, const char* arg1, const char* arg2,
                    const char* ip) {
  job->index = index;
  job->value = value;
  job->arg1 = arg1;
  job->arg2 = arg2;
  job->ip = ip;
  job->answer[0] = '\0';
  job->result = 0;
}

void zunta_format_fallback(char (&text)[IP_TEXT_SIZE], int32_t fallback, int32_t m) {
  zunta_format_buffer(text, sizeof text, "1.%d.0.%d", m, fallback);
}

void zunta_job_set_pattern_with_fallback(zunta_command_job* job, const char* ip, const char* mac,
                                         int32_t pattern, const char* fallback_text) {
  zunta_fill_job(job, CMD_SET_PATTERN, pattern, fallback_text, mac, ip);
}

void zunta_job_start_dump(zunta_command_job* job, const char* ip, const char* mac) {
  zunta_fill_job(job, CMD_START_DUMP, -1, PLACEHOLDER_IP, mac, ip);
}

void zunta_job_start_training(zunta_command_job* job, const char* ip, const char* peer_ip) {
  zunta_fill_job(job, CMD_START_TRAINING, -1, peer_ip, ZERO_MAC, ip);
}

// Command 5: the agent stops its measurement and reports one statistics line per peer; the line
// about the pair's other end goes into the current round record of the pair's results block.
#include "training/training.h"

#include <cstdint>
#include <cstring>

#include "commander/catalogue.h"
#include "commander/transport.h"
#include "core/log.h"
#include "core/text.h"
#include "meshpair/meshpair.h"

namespace {

constexpr int32_t MEASURED_RADIO = 2;  // results of other radios are not antenna training results

// Scans one statistics line as "%17[^,],%d,0x%x,%d,%d,%d,%d" would, but a number that does not fit
// its field, or a first field that is not a MAC text, makes the line unusable.
bool scan_result_line(const char* line, round_result_line& out) {
  constexpr int32_t MIN = INT32_MIN, MAX = INT32_MAX;
  const char* p = zunta_scan_text_field(line, out.mac);
  int32_t pattern = 0;
  if (p == nullptr || !zunta_mac_shaped(out.mac) || !zunta_scan_int32(p, 10, MIN, MAX, &out.radio_id, &p) ||
      *p++ != ',')
    return false;
  // The pattern is written 0x<hex>; a negative one is not a pattern index.
  if (*p++ != '0' || *p++ != 'x' || !zunta_scan_int32(p, 16, 0, MAX, &pattern, &p) || *p++ != ',')
    return false;
  out.pattern = pattern;
  if (!zunta_scan_int32(p, 10, MIN, MAX, &out.avg_bitrate, &p) || *p++ != ',') return false;
  if (!zunta_scan_int32(p, 10, MIN, MAX, &out.nframes, &p) || *p++ != ',') return false;
  if (!zunta_scan_int32(p, 10, MIN, MAX, &out.nfeedback, &p) || *p++ != ',') return false;
  return zunta_scan_int32(p, 10, MIN, MAX, &out.avg_bitrate_ma, nullptr);
}

}  // namespace

bool zunta_find_result_line(char (&answer)[ANSWER_SIZE], const char* peer_mac, round_result_line* out) {
  char* line = answer;
  for (char* end = std::strchr(line, '\n'); end != nullptr; line = end + 1, end = std::strchr(line, '\n')) {
    *end = '\0';
    ZLOG(COMP_CORE, LVL_D, "Line: %s\n", line);
    round_result_line scanned = {};
    if (!scan_result_line(line, scanned)) continue;
    if (!zunta_text_equal(scanned.mac, peer_mac, MAC_TEXT_SIZE)) continue;
    *out = scanned;
    return true;
  }
  return false;
}

namespace {

// Stores the line on the side of the node that answered and logs the stored row.
void record_result(mesh_pair* mp, int32_t r, const char* own_mac, const round_result_line& res) {
  txcs_record& rec = mp->txcs->rounds[r];
  const bool left = zunta_text_equal(own_mac, mp->left_mac, MAC_TEXT_SIZE);
  int32_t& pattern = left ? rec.left_pattern : rec.right_pattern;
  float& avg = left ? rec.left_avg_bitrate : rec.right_avg_bitrate;
  float& avg_ma = left ? rec.left_avg_bitrate_ma : rec.right_avg_bitrate_ma;
  int32_t& nframes = left ? rec.left_nframes : rec.right_nframes;
  int32_t& nfeedback = left ? rec.left_nfeedback : rec.right_nfeedback;

  mp->radioidx = MEASURED_RADIO;
  pattern = res.pattern;
  avg = static_cast<float>(res.avg_bitrate);
  avg_ma = static_cast<float>(res.avg_bitrate_ma);
  nframes = res.nframes;
  nfeedback = res.nfeedback;

  ZLOG(COMP_CORE, LVL_I,
       "Round\t| Mac\t\t\t| Radio_id \t| Pattern index\t| avg_bitrate\t| nframes\t| "
       "nfeedback\t|avg_bitrate_ma\n");
  ZLOG(COMP_CORE, LVL_I, "%d\t| %s\t| %d\t\t| %d\t\t| %.0f\t| %d\t\t| %d\t| %.0f\t\n", r,
       left ? mp->left_mac : mp->right_mac, mp->radioidx, pattern, static_cast<double>(avg), nframes,
       nfeedback, static_cast<double>(avg_ma));
}

}  // namespace

int zunta_stop_training(char (&buffer)[COMMAND_SIZE], mesh_pair* mp, const char* peer_mac,
                        const char* own_mac, const char* ip) {
  if (mp == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for mesh_pair\n");
    return -1;
  }
  if (mp->txcs == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for mesh_pair->txcs\n");
    return -1;
  }
  char answer[ANSWER_SIZE] = {};
  const int result =
      zunta_make_and_send_command(buffer, CMD_STOP_TRAINING, -1, PLACEHOLDER_IP, ZERO_MAC, answer, ip);
  return zunta_record_stop_training(mp, peer_mac, own_mac, ip, answer, result);
}

void zunta_job_stop_training(zunta_command_job* job, const char* ip) {
  zunta_fill_job(job, CMD_STOP_TRAINING, -1, PLACEHOLDER_IP, ZERO_MAC, ip);
}

int zunta_record_stop_training(mesh_pair* mp, const char* peer_mac, const char* own_mac, const char* ip,
                               char (&answer)[ANSWER_SIZE], int result) {
  if (mp == nullptr) {
    ZLOG_AS("zunta_stop_training", COMP_CORE, LVL_E, "NULL pointer exception for mesh_pair\n");
    return -1;
  }
  if (mp->txcs == nullptr) {
    ZLOG_AS("zunta_stop_training", COMP_CORE, LVL_E, "NULL pointer exception for mesh_pair->txcs\n");
    return -1;
  }
  // A failed command leaves the record as it was; the caller has nothing more to report.
  if (result != 0) return 0;
  // The command has stopped the agent's measurement either way; its figures are kept only when
  // they have a round record to go to.
  const int32_t r = mp->txcs_count;
  if (r < 0 || r >= TXCS_ROUNDS) {
    ZLOG_AS("zunta_stop_training", COMP_CORE, LVL_E,
            "Round %d outside the results block of %s-%s, result not recorded\n", r, mp->left_mac,
            mp->right_mac);
    return 0;
  }
  round_result_line res = {};
  // Without a line about the peer there is nothing to record: figures about another peer would be
  // wrong for this link.
  if (!zunta_find_result_line(answer, peer_mac, &res)) {
    ZLOG_AS("zunta_stop_training", COMP_CORE, LVL_I, "No result line about %s from %s\n", peer_mac, ip);
    return 0;
  }
  if (res.radio_id != MEASURED_RADIO) {
    ZLOG_AS("zunta_stop_training", COMP_CORE, LVL_E, "UNEXPECTED radio index\n");
    return 0;
  }
  record_result(mp, r, own_mac, res);
  return 0;
}

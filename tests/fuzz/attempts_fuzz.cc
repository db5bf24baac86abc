// The answer of several attempts: the input is split into attempts at 0xff bytes and into reads at
// 0xfe bytes; each read is appended as the transport does. The result must equal a plain model of
// the rule (a retry first drops the previous attempt's unterminated tail; 1023 characters kept),
// and the command 5 parser reads it.
#include <string>

#include "commander/transport.h"
#include "fuzz_support.h"
#include "training/training.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  char answer[ANSWER_SIZE] = {};
  std::string model;
  int attempt = 0;
  bool first_read = true;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= size; ++i) {
    if (i < size && data[i] != 0xff && data[i] != 0xfe) continue;
    std::string read(reinterpret_cast<const char*>(data + start), i - start);
    read = read.substr(0, read.find('\0'));
    if (!read.empty()) {
      bool drop = attempt > 0 && first_read;
      zunta_answer_append(answer, read.data(), read.size(), drop);
      if (drop) model.erase(model.rfind('\n') == std::string::npos ? 0 : model.rfind('\n') + 1);
      model = (model + read).substr(0, ANSWER_SIZE - 1);
      first_read = false;
    }
    if (i < size && data[i] == 0xff) {
      ++attempt;
      first_read = true;
    }
    start = i + 1;
  }
  if (model != answer) __builtin_trap();
  round_result_line line = {};
  zunta_find_result_line(answer, "aa:bb:cc:dd:ee:02", &line);
  return 0;
}

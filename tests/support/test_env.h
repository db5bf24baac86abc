// Test-wide settings: the time scale, the agent port and a private directory for every file the
// code under test writes. main.cc applies them before any test runs.
#ifndef ZUNTA_TESTS_SUPPORT_TEST_ENV_H_
#define ZUNTA_TESTS_SUPPORT_TEST_ENV_H_

#include <cstdint>
#include <string>

constexpr double TEST_TIME_SCALE = 0.05;  // a 3-s socket time-out becomes 150 ms

// The agent port of the in-process tests; each test program listens on its own 127.0.N.x range.
uint16_t test_agent_port();
// A directory private to this test process, removed at exit.
const std::string& test_dir();
// Reads a whole file; empty when it cannot be read.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);

#endif  // ZUNTA_TESTS_SUPPORT_TEST_ENV_H_

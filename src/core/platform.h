// Assumptions about the platform, checked at compile time. The target is 32-bit ARM Linux with
// 64-bit time; the same code builds on 64-bit hosts.
#ifndef ZUNTA_CORE_PLATFORM_H_
#define ZUNTA_CORE_PLATFORM_H_

#include <sys/socket.h>
#include <sys/time.h>

#include <ctime>

static_assert(sizeof(time_t) == 8, "build with 64-bit time (_TIME_BITS=64 on 32-bit targets)");
static_assert(sizeof(timeval::tv_sec) == 8 && sizeof(timeval::tv_usec) == 8,
              "socket time-outs are given as timevals with 64-bit fields");
#if defined(__arm__)
// With 64-bit time on 32-bit ARM the time-out options take their 64-bit form.
static_assert(SO_RCVTIMEO == 66 && SO_SNDTIMEO == 67, "64-bit time-out socket options");
#endif

#endif  // ZUNTA_CORE_PLATFORM_H_

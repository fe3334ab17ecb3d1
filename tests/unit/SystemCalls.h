#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <utility>

#include "tests/unit/LoopbackPeer.h"

// Functions of the C library, defined anew for the test program: each fails where WithEachCallFailing() wants it to, or
// does what the test has put into on_NAME, or what it always does, which is real_NAME().

struct FailingCalls {
  int left = 0;  // how many calls, of whatever function, until the one that fails with EXDEV; 0 for none
  std::string failed;

  bool IsNext(const char* name) {
    if (left == 0 || --left != 0) return false;
    failed = name;
    errno = EXDEV;
    return true;
  }
};
inline FailingCalls failingCalls;

#define SYSTEM_CALL(result, name, mayFail, isNoexcept, parameters, arguments)                     \
  inline result real_##name parameters {                                                          \
    static const auto function = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    return function arguments;                                                                    \
  }                                                                                               \
  inline std::function<result parameters> on_##name;                                              \
  extern "C" result name parameters noexcept(isNoexcept) {                                        \
    if (mayFail && failingCalls.IsNext(#name)) return -1;                                         \
    return on_##name ? on_##name arguments : real_##name arguments;                               \
  }
#define SYSTEM_CALL_2(result, name, mayFail, isNoexcept, A, B) \
  SYSTEM_CALL(result, name, mayFail, isNoexcept, (A a, B b), (a, b))
#define SYSTEM_CALL_3(result, name, isNoexcept, A, B, C) \
  SYSTEM_CALL(result, name, true, isNoexcept, (A a, B b, C c), (a, b, c))
#define SYSTEM_CALL_4(result, name, isNoexcept, A, B, C, D) \
  SYSTEM_CALL(result, name, true, isNoexcept, (A a, B b, C c, D d), (a, b, c, d))
#define SYSTEM_CALL_5(result, name, isNoexcept, A, B, C, D, E) \
  SYSTEM_CALL(result, name, true, isNoexcept, (A a, B b, C c, D d, E e), (a, b, c, d, e))
#define SYSTEM_CALL_6(result, name, isNoexcept, A, B, C, D, E, F) \
  SYSTEM_CALL(result, name, true, isNoexcept, (A a, B b, C c, D d, E e, F f), (a, b, c, d, e, f))
/// One whose third argument is optional.
#define VARIADIC_SYSTEM_CALL(name, isNoexcept, A, B)                                            \
  inline int real_##name(A a, B b, void* c) {                                                   \
    static const auto function = reinterpret_cast<int (*)(A, B, ...)>(dlsym(RTLD_NEXT, #name)); \
    return function(a, b, c);                                                                   \
  }                                                                                             \
  extern "C" int name(A a, B b, ...) noexcept(isNoexcept) {                                     \
    std::va_list rest;                                                                          \
    va_start(rest, b);                                                                          \
    void* const c = va_arg(rest, void*);                                                        \
    va_end(rest);                                                                               \
    return failingCalls.IsNext(#name) ? -1 : real_##name(a, b, c);                              \
  }

VARIADIC_SYSTEM_CALL(fcntl, false, int, int)
VARIADIC_SYSTEM_CALL(ioctl, true, int, unsigned long)
VARIADIC_SYSTEM_CALL(open, false, const char*, int)
SYSTEM_CALL_2(int, clock_gettime, false, true, clockid_t, timespec*)
SYSTEM_CALL_2(int, nanosleep, false, false, const timespec*, timespec*)
SYSTEM_CALL_2(int, pipe2, true, true, int*, int)
SYSTEM_CALL_2(int, listen, true, true, int, int)
SYSTEM_CALL(int, poll, false, false, (pollfd * a, nfds_t b, int c), (a, b, c))
SYSTEM_CALL_3(int, pthread_getschedparam, true, pthread_t, int*, sched_param*)
SYSTEM_CALL_3(int, socket, true, int, int, int)
SYSTEM_CALL_3(int, bind, true, int, const sockaddr*, socklen_t)
SYSTEM_CALL_3(int, connect, false, int, const sockaddr*, socklen_t)
SYSTEM_CALL_3(int, getsockname, true, int, sockaddr*, socklen_t*)
SYSTEM_CALL_3(int, getpeername, true, int, sockaddr*, socklen_t*)
SYSTEM_CALL_4(int, accept4, false, int, sockaddr*, socklen_t*, int)
SYSTEM_CALL_4(ssize_t, send, false, int, const void*, size_t, int)
SYSTEM_CALL_4(ssize_t, recv, false, int, void*, size_t, int)
SYSTEM_CALL_5(int, getsockopt, true, int, int, int, void*, socklen_t*)
SYSTEM_CALL_5(int, setsockopt, true, int, int, int, const void*, socklen_t)
SYSTEM_CALL_5(int, select, false, int, fd_set*, fd_set*, fd_set*, timeval*)
SYSTEM_CALL(int, posix_spawn, false, false,
            (pid_t * a, const char* b, const posix_spawn_file_actions_t* c, const posix_spawnattr_t* d, char* const e[],
             char* const f[]),
            (a, b, c, d, e, f))
SYSTEM_CALL_6(ssize_t, sendto, false, int, const void*, size_t, int, const sockaddr*, socklen_t)
SYSTEM_CALL_6(ssize_t, recvfrom, false, int, void*, size_t, int, sockaddr*, socklen_t*)

/// What `action` returns, its calls being none of those that fail; errno stays as it is.
template <typename Action>
auto Undisturbed(const Action& action) {
  const int left = std::exchange(failingCalls.left, 0), error = errno;
  const auto result = action();
  failingCalls.left = left;
  errno = error;
  return result;
}

/// What `action` returns when its first system call fails, its second one and so on, a line for each: "socket: 0", and
/// behind it what is not as it should be: another errno, descriptors lost. Then what went to standard error.
inline std::string WithEachCallFailing(const std::function<std::string()>& action) {
  std::string lines;
  for (int call = 1;; ++call) {
    const int before = CountDescriptors();
    testing::internal::CaptureStderr();
    failingCalls = {call, ""};
    const std::string result = action();
    const int error = errno;
    failingCalls.left = 0;
    const std::string printed = testing::internal::GetCapturedStderr();
    if (failingCalls.failed.empty()) return lines;
    lines += failingCalls.failed + ": " + result;
    if (error != EXDEV) lines += std::string(", ") + std::strerror(error);
    if (const int lost = CountDescriptors() - before) lines += ", descriptors: " + std::to_string(lost);
    lines += "\n" + printed;
  }
}

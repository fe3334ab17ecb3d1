#pragma once

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdarg>
#include <ctime>

#include "base/ErrorText.h"
#include "tests/unit/LoopbackPeer.h"

// Functions of the C library, defined anew for the test program: each fails where WithEachCallFailing() wants it to, or
// does what the test has put into on_NAME, as long as a ReplacedCalls lives, or what it always does, real_NAME().

struct ReplacedCalls {
  ~ReplacedCalls() {
    for (const auto& restore : restores) restore();
  }
  static inline std::vector<void (*)()> restores;
};

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

// NOLINTBEGIN(bugprone-macro-parentheses): types, lists of parameters and of arguments stand bare.
// Without the noexcept that some have in their headers, which both compilers take from there.
#define SYSTEM_CALL(result, name, mayFail, parameters, arguments)                                    \
  inline result real_##name parameters {                                                             \
    static const auto function = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));    \
    return function arguments;                                                                       \
  }                                                                                                  \
  inline std::function<result parameters> on_##name;                                                 \
  const bool name##IsKnown = (ReplacedCalls::restores.push_back([] { on_##name = nullptr; }), true); \
  extern "C" result name parameters {                                                                \
    if (mayFail && failingCalls.IsNext(#name)) return -1;                                            \
    return on_##name ? on_##name arguments : real_##name arguments;                                  \
  }
/// One whose third argument is optional.
#define VARIADIC_SYSTEM_CALL(name, A, B)                                                        \
  inline int real_##name(A a, B b, void* c) {                                                   \
    static const auto function = reinterpret_cast<int (*)(A, B, ...)>(dlsym(RTLD_NEXT, #name)); \
    return function(a, b, c);                                                                   \
  }                                                                                             \
  extern "C" int name(A a, B b, ...) {                                                          \
    std::va_list rest;                                                                          \
    va_start(rest, b);                                                                          \
    void* const c = va_arg(rest, void*);                                                        \
    va_end(rest);                                                                               \
    return failingCalls.IsNext(#name) ? -1 : real_##name(a, b, c);                              \
  }

VARIADIC_SYSTEM_CALL(fcntl, int, int)
VARIADIC_SYSTEM_CALL(ioctl, int, unsigned long)
VARIADIC_SYSTEM_CALL(open, const char*, int)
SYSTEM_CALL(int, clock_gettime, false, (clockid_t a, timespec* b), (a, b))
SYSTEM_CALL(int, nanosleep, false, (const timespec* a, timespec* b), (a, b))
SYSTEM_CALL(int, poll, false, (pollfd * a, nfds_t b, int c), (a, b, c))
SYSTEM_CALL(int, posix_spawn, false,
            (pid_t * a, const char* b, const posix_spawn_file_actions_t* c, const posix_spawnattr_t* d, char* const e[],
             char* const f[]),
            (a, b, c, d, e, f))
SYSTEM_CALL(int, pipe2, true, (int* a, int b), (a, b))
SYSTEM_CALL(int, listen, true, (int a, int b), (a, b))
SYSTEM_CALL(int, pthread_getschedparam, true, (pthread_t a, int* b, sched_param* c), (a, b, c))
SYSTEM_CALL(int, socket, true, (int a, int b, int c), (a, b, c))
SYSTEM_CALL(int, bind, true, (int a, const sockaddr* b, socklen_t c), (a, b, c))
SYSTEM_CALL(int, connect, true, (int a, const sockaddr* b, socklen_t c), (a, b, c))
SYSTEM_CALL(int, getsockname, true, (int a, sockaddr* b, socklen_t* c), (a, b, c))
SYSTEM_CALL(int, getpeername, true, (int a, sockaddr* b, socklen_t* c), (a, b, c))
SYSTEM_CALL(int, accept4, true, (int a, sockaddr* b, socklen_t* c, int d), (a, b, c, d))
SYSTEM_CALL(int, getsockopt, true, (int a, int b, int c, void* d, socklen_t* e), (a, b, c, d, e))
SYSTEM_CALL(int, setsockopt, true, (int a, int b, int c, const void* d, socklen_t e), (a, b, c, d, e))
SYSTEM_CALL(int, select, true, (int a, fd_set* b, fd_set* c, fd_set* d, timeval* e), (a, b, c, d, e))
SYSTEM_CALL(ssize_t, send, true, (int a, const void* b, size_t c, int d), (a, b, c, d))
SYSTEM_CALL(ssize_t, recv, true, (int a, void* b, size_t c, int d), (a, b, c, d))
SYSTEM_CALL(ssize_t, sendto, true, (int a, const void* b, size_t c, int d, const sockaddr* e, socklen_t f),
            (a, b, c, d, e, f))
SYSTEM_CALL(ssize_t, recvfrom, true, (int a, void* b, size_t c, int d, sockaddr* e, socklen_t* f), (a, b, c, d, e, f))
// NOLINTEND(bugprone-macro-parentheses)

/// What `action` returns, its calls being none of those that fail; errno stays as it is.
template <typename Action>
auto Undisturbed(const Action& action) {
  const int left = std::exchange(failingCalls.left, 0), error = errno;
  auto result = action();
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
    if (error != EXDEV) lines += std::string(", ") + ErrorText(error);
    if (const int lost = CountDescriptors() - before) lines += ", descriptors: " + std::to_string(lost);
    lines += "\n" + printed;
  }
}

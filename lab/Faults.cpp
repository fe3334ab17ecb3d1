// Preloaded into the daemon: memory runs out for one allocation of the thread that reads "FAIL" and a number, the
// number'th from there.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE  // memmem()
#endif
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

thread_local long left __attribute__((tls_model("initial-exec"))) = 0;

ssize_t Look(const void* text, ssize_t count) {
  if (count <= 0) return count;
  const void* const found = memmem(text, static_cast<std::size_t>(count), "FAIL", 4);
  left = found == nullptr ? 0 : std::strtol(static_cast<const char*>(found) + 4, nullptr, 10);
  return count;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);  // NOLINT(cert-dcl37-c,cert-dcl51-cpp): the C library's own

void* malloc(std::size_t size) {
  if (left == 0 || --left > 0) return __libc_malloc(size);
  errno = ENOMEM;
  return nullptr;
}

ssize_t recvfrom(int from, void* text, std::size_t size, int flags, sockaddr* sender, socklen_t* length) {
  using Function = ssize_t (*)(int, void*, std::size_t, int, sockaddr*, socklen_t*);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "recvfrom"));
  return Look(text, real(from, text, size, flags, sender, length));
}

ssize_t read(int from, void* text, std::size_t size) {
  using Function = ssize_t (*)(int, void*, std::size_t);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "read"));
  return Look(text, real(from, text, size));
}
}

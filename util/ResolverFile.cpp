#include "util/ResolverFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "base/Descriptor.h"

namespace {

constexpr const char* RESOLVER_FILE = "/etc/resolf.conf";  // kept so: not the system's resolv.conf

/// Opens the file emptied; one that it creates is 0644 whatever the umask. Never waits, not even for the reader of a
/// pipe that somebody put there.
int OpenResolverFile() {
  constexpr int how = O_WRONLY | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const int existing = GateDescriptor(open(RESOLVER_FILE, how));
  if (existing >= 0 || errno != ENOENT) return existing;
  const int created = GateDescriptor(open(RESOLVER_FILE, how | O_CREAT, 0644));
  if (created >= 0) fchmod(created, 0644);
  return created;
}

/// In one write, which needs no memory.
bool WriteLine(int file, const char* nameserver) {
  const char* const parts[] = {"nameserver ", nameserver, "\n"};
  iovec line[3] = {};
  for (std::size_t part = 0; part < 3; ++part) line[part] = {const_cast<char*>(parts[part]), std::strlen(parts[part])};
  return writev(file, line, 3) > 0;
}

}  // namespace

bool ResolverFile_Write(std::initializer_list<const char*> nameservers) {
  const int file = OpenResolverFile();
  if (file < 0) return false;
  bool written = false;
  for (const char* nameserver : nameservers) {
    if (nameserver == nullptr) continue;
    written = WriteLine(file, nameserver) || written;
  }
  close(file);
  return written;
}

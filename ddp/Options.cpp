#include "ddp/Options.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

char IPAddress[128] = "127.0.0.1";
char InterfaceName[128] = "eth0";
std::int32_t port = 1200;
std::int32_t Daemon = 1;
std::int32_t ServiceSystem = 0;

namespace {

void SetText(char (&setting)[128], const char* value) {
  const std::size_t length = std::strlen(value);
  if (length < sizeof setting) std::memcpy(setting, value, length + 1);
}

/// The low 32 bits on every machine, whatever the width of long. The bound is compared unsigned, so a negative number
/// passes it.
std::int32_t PortOf(const char* value) {
  constexpr std::uint32_t HIGHEST_REFUSED = 999;
  constexpr std::int32_t INSTEAD = 1400;
  const auto number = static_cast<std::uint32_t>(std::strtoll(value, nullptr, 10));
  return number <= HIGHEST_REFUSED ? INSTEAD : static_cast<std::int32_t>(number);
}

constexpr char HELP[] =
    "usage: tarnddpd [-nodaemon] [-if INTERFACE] [-ip ADDRESS] [-port NUMBER]\n"
    "\n"
    "Makes this device findable and configurable on the local network. Sets a multicast route, needs root for "
    "settings.\n"
    "\n"
    "  -nodaemon      stay in the foreground and log to standard output\n"
    "  -if INTERFACE  interface of the route, the multicast groups and the settings (eth0)\n"
    "  -ip ADDRESS    address of the device service, a dotted quad (127.0.0.1)\n"
    "  -port NUMBER   TCP port of the device service (1200)\n"
    "\n"
    "Any other word is ignored. See tarnddpd(8).\n";
constexpr char VERSION[] = "tarnddpd " TARNDDPD_VERSION "\n";

}  // namespace

void ReadOptions(int argc, const char* const* argv) {
  if (argc > 0 && std::strstr(argv[0], "/ServiceSystem") != nullptr) ServiceSystem = 1;
  for (int i = 0; i < argc; ++i) {
    const auto is = [word = argv[i]](const char* option) { return std::strcmp(word, option) == 0; };
    if (is("-nodaemon")) Daemon = 0;
    if (i + 1 == argc) return;  // the last argument is no option that takes a value
    const char* const value = argv[i + 1];
    if (is("-ip")) SetText(IPAddress, value);
    if (is("-port")) port = PortOf(value);
    if (is("-if")) SetText(InterfaceName, value);
  }
}

const char* AnswerInsteadOfServing(int argc, const char* const* argv) {
  if (argc != 2) return nullptr;
  if (std::strcmp(argv[1], "--help") == 0) return HELP;
  return std::strcmp(argv[1], "--version") == 0 ? VERSION : nullptr;
}

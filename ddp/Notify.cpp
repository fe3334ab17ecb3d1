#include "ddp/Notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/ConsoleLine.h"
#include "base/Descriptor.h"
#include "ddp/DeviceService.h"
#include "ddp/TarnDDPServer.h"
#include "util/_Time.h"

namespace {

constexpr std::uint64_t STATE_INTERVAL_US = 5000000;
constexpr std::uint64_t LONG_STEP_US = 3600000000;

sockaddr_un address = {};
socklen_t addressLength = 0;  // 0: nobody is to be told
int descriptor = -1;

std::uint64_t watchdogUS = 0;  // 0: nobody watches
AbsTime_US keepAliveDeadline = 0;
bool isWatchdogRaised = false;  // as far as the supervisor was told

bool isReadyTold = false;
bool isDetached = false;

struct State {
  bool isServiceUp;
  bool isOpen[TarnDDPServer::ENDPOINTS];
  unsigned linesDropped;
};
State told = {};
AbsTime_US stateDeadline = 0;  // for the lines, which may be many

/// The lines of one datagram.
class Message {
 public:
  [[gnu::format(printf, 2, 3)]] void Add(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(_text + _length, sizeof _text - _length, format, arguments);
    va_end(arguments);
    _length = std::min(_length + static_cast<std::size_t>(std::max(0, length)), sizeof _text - 1);
  }

  /// True if the supervisor has it, or nothing is to be said. The socket stays: later there may be no descriptor left.
  bool Send() const {
    if (_length == 0) return true;
    if (descriptor < 0) descriptor = GateCloexec(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (descriptor < 0) return false;
    return sendto(descriptor, _text, _length, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                  addressLength) >= 0;
  }

 private:
  char _text[512] = "";
  std::size_t _length = 0;
};

/// '@' stands for the NUL that an abstract address begins with (unix(7)).
void SetAddress(const char* path) {
  const std::size_t length = std::strlen(path);
  if ((path[0] != '/' && path[0] != '@') || length < 2 || length >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';
  addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

/// 0 if the variable is absent or no number.
std::uint64_t NumberOf(const char* variable) {
  const char* const text = std::getenv(variable);
  if (text == nullptr) return 0;
  const char* const end = text + std::strlen(text);
  std::uint64_t number = 0;
  const auto [stop, error] = std::from_chars(text, end, number);
  return error == std::errc() && stop == end ? number : 0;
}

State Look() {
  State state = {IsConnected(), {}, ConsoleLinesDropped};
  const auto endpoints = Server.GetEndpoints();
  for (std::size_t which = 0; which < endpoints.size(); ++which) state.isOpen[which] = endpoints[which].error == 0;
  return state;
}

bool IsStateDue(const State& state) {
  if (!isReadyTold || state.isServiceUp != told.isServiceUp) return true;
  if (!std::equal(state.isOpen, state.isOpen + TarnDDPServer::ENDPOINTS, told.isOpen)) return true;
  return state.linesDropped != told.linesDropped && ul_MathAbsTime_NowIsHigherParam(&stateDeadline);
}

void AddState(const State& state, Message& message) {
  message.Add("STATUS=device service %s; open UDP ports:", state.isServiceUp ? "up" : "away");
  const auto endpoints = Server.GetEndpoints();
  for (std::size_t which = 0; which < endpoints.size(); ++which) {
    if (state.isOpen[which]) message.Add(" %s", endpoints[which].port);
  }
  message.Add("; lines dropped: %u\n", state.linesDropped);
}

void AddReady(Message& message) {
  message.Add("READY=1\n");
  if (isDetached) message.Add("MAINPID=%ld\n", static_cast<long>(getpid()));
}

void AddKeepAlive(std::uint64_t intervalUS, Message& message) {
  if (intervalUS != 0) message.Add("WATCHDOG_USEC=%llu\n", static_cast<unsigned long long>(intervalUS));
  message.Add("WATCHDOG=1\n");
}

}  // namespace

void Notify_Prepare() {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  if (path != nullptr) SetAddress(path);
  const bool isOurs =
      std::getenv("WATCHDOG_PID") == nullptr || NumberOf("WATCHDOG_PID") == static_cast<std::uint64_t>(getpid());
  if (isOurs && addressLength != 0) watchdogUS = NumberOf("WATCHDOG_USEC");
  for (const char* const variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
    unsetenv(variable);  // NOLINT(concurrency-mt-unsafe): there is one thread yet
  }
}

void Notify_Detached(pid_t daemon) {
  isDetached = true;
  if (daemon == 0 || addressLength == 0) return;
  Message message;
  message.Add("MAINPID=%ld\n", static_cast<long>(daemon));
  message.Send();
}

void Notify_Turn() {
  if (addressLength == 0) return;
  const State state = Look();
  const bool isStateDue = IsStateDue(state);
  const bool isKeepAliveDue =
      watchdogUS != 0 && (isWatchdogRaised || ul_MathAbsTime_NowIsHigherParam(&keepAliveDeadline));
  Message message;
  if (!isReadyTold) AddReady(message);
  if (isStateDue) AddState(state, message);
  if (isKeepAliveDue) AddKeepAlive(isWatchdogRaised ? watchdogUS : 0, message);
  if (!message.Send()) return;
  isReadyTold = true;
  if (isStateDue) {
    told = state;
    ul_MathAbsTime_NowAddParam_US(STATE_INTERVAL_US, &stateDeadline);
  }
  if (isKeepAliveDue) {
    isWatchdogRaised = false;
    ul_MathAbsTime_NowAddParam_US(watchdogUS / 2, &keepAliveDeadline);
  }
}

NotifyLongStep::NotifyLongStep() {
  if (watchdogUS == 0) return;
  Message message;
  AddKeepAlive(std::max(watchdogUS, LONG_STEP_US), message);
  isWatchdogRaised = message.Send();
}

NotifyLongStep::~NotifyLongStep() { Notify_Turn(); }

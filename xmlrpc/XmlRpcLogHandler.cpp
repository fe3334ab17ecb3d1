#include "xmlrpc/XmlRpcLogHandler.h"

#include <poll.h>
#include <stdio_ext.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/ConsoleLine.h"

namespace {

/// Holds a handler for the whole run: constant-initialised and never destroyed, since globals of other files may log
/// before main() begins and after it has ended.
template <typename Handler>
union WholeRun {
  constexpr WholeRun() : handler() {}
  ~WholeRun() {}
  Handler handler;
};
WholeRun<DefaultLogHandler> defaultLogHandler;
WholeRun<DefaultErrorHandler> defaultErrorHandler;

/// Writes out what the program itself has printed so far, if that cannot wait: neither for another thread that holds
/// the stream, nor for the reader of a full pipe, which takes ConsoleLineLimit bytes once it is writable. A terminal
/// may have less room then, so there the program's own text waits for its own flush.
void FlushWithoutWaiting(std::FILE* stream) {
  if (ftrylockfile(stream) != 0) return;
  const std::size_t pending = __fpending(stream);
  pollfd output = {fileno(stream), POLLOUT, 0};
  if (pending > 0 && pending <= ConsoleLineLimit && isatty(output.fd) == 0 && poll(&output, 1, 0) == 1 &&
      output.revents == POLLOUT) {
    std::fflush(stream);
  }
  funlockfile(stream);
}

/// Writes `msg`, cut to a line, and a line break; errno is left as it was.
void WriteLine(std::FILE* stream, const char* msg) {
  const int cause = errno;
  FlushWithoutWaiting(stream);
  errno = cause;
  std::string line(std::string_view(msg).substr(0, ConsoleLineLimit - 1));
  ConsoleLine(fileno(stream), line += '\n');
}

}  // namespace

namespace TarnXmlRpc {

XmlRpcLogHandler* XmlRpcLogHandler::m_pLogHandler = &defaultLogHandler.handler;
std::int32_t XmlRpcLogHandler::m_Verbosity = 0;
XmlRpcErrorHandler* XmlRpcErrorHandler::m_pErrorHandler = &defaultErrorHandler.handler;

int getVerbosity() { return XmlRpcLogHandler::m_Verbosity; }
void setVerbosity(int verbosity) { XmlRpcLogHandler::m_Verbosity = verbosity; }

}  // namespace TarnXmlRpc

void DefaultLogHandler::log(int level, const char* msg) {
  if (level <= TarnXmlRpc::XmlRpcLogHandler::m_Verbosity) WriteLine(stdout, msg);
}

void DefaultErrorHandler::error(const char* msg) { WriteLine(stderr, msg); }

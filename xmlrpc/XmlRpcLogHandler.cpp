#include "xmlrpc/XmlRpcLogHandler.h"

#include <cstdio>
#include <string>

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

/// Writes `msg` and a line break after what the program itself has printed so far.
void WriteLine(std::FILE* stream, const char* msg) {
  std::fflush(stream);
  ConsoleLine(fileno(stream), std::string(msg) + '\n');
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

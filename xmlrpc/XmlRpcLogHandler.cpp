#include "xmlrpc/XmlRpcLogHandler.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "base/ConsoleLine.h"

namespace {

// Constant-initialised, as the pointers to them are: a global of another file may log before main() runs.
DefaultLogHandler defaultLogHandler;
DefaultErrorHandler defaultErrorHandler;

/// Writes `msg` and a line break after what the program itself has printed so far.
void WriteLine(std::FILE* stream, int descriptor, const char* msg) {
  std::fflush(stream);
  ConsoleLine(descriptor, std::string(msg) + '\n');
}

}  // namespace

namespace TarnXmlRpc {

XmlRpcLogHandler* XmlRpcLogHandler::m_pLogHandler = &defaultLogHandler;
std::int32_t XmlRpcLogHandler::m_Verbosity = 0;
XmlRpcErrorHandler* XmlRpcErrorHandler::m_pErrorHandler = &defaultErrorHandler;

int getVerbosity() { return XmlRpcLogHandler::m_Verbosity; }
void setVerbosity(int verbosity) { XmlRpcLogHandler::m_Verbosity = verbosity; }

}  // namespace TarnXmlRpc

void DefaultLogHandler::log(int level, const char* msg) {
  if (level <= TarnXmlRpc::XmlRpcLogHandler::m_Verbosity) WriteLine(stdout, STDOUT_FILENO, msg);
}

void DefaultErrorHandler::error(const char* msg) { WriteLine(stderr, STDERR_FILENO, msg); }

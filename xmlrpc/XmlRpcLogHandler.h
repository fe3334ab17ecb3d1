#pragma once

#include <cstdint>

namespace TarnXmlRpc {

/// Takes the library's log messages. To replace the default one, store the address of another object in m_pLogHandler;
/// it stays the caller's, the library deletes none. Not locked.
class XmlRpcLogHandler {
 public:
  virtual ~XmlRpcLogHandler() = default;
  virtual void log(int level, const char* msg) = 0;

  static XmlRpcLogHandler* m_pLogHandler;
  /// Messages of a level up to this one are handed on.
  static std::int32_t m_Verbosity;
};

/// Takes the library's error messages; replaced in the same way.
class XmlRpcErrorHandler {
 public:
  virtual ~XmlRpcErrorHandler() = default;
  virtual void error(const char* msg) = 0;

  static XmlRpcErrorHandler* m_pErrorHandler;
};

int getVerbosity();
void setVerbosity(int verbosity);

}  // namespace TarnXmlRpc

/// Writes each message, cut to 4095 bytes, and a line break to standard output, at once. It never blocks: a message for
/// which a full pipe has no room is dropped, and what the program itself has printed goes out before it only if it is
/// at most 4096 bytes, there is room and it goes to no terminal; else it follows when the program flushes it.
class DefaultLogHandler : public TarnXmlRpc::XmlRpcLogHandler {
 public:
  void log(int level, const char* msg) override;
};

/// The same to standard error.
class DefaultErrorHandler : public TarnXmlRpc::XmlRpcErrorHandler {
 public:
  void error(const char* msg) override;
};

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace TarnXmlRpc {

/// Finds the length field and the body in the text of an HTTP/1.1 response (RFC 9112) while it grows. Pure; takes time
/// linear in the text however small the pieces are.
///
/// It looks at nothing else: not at the status line, not at other fields. "Content-length: " counts in any case and
/// anywhere before the body, the last one wins, and its blank is part of it. The head ends at the first blank line,
/// "\r\n\r\n" or "\n\n", that at least one byte follows; so a head that arrived alone is still incomplete.
class HttpHead {
 public:
  enum class State { Incomplete, Complete, NoLength };

  /// Reads on in `text`: all of the response so far, the text of the last call first. The result is that of reading
  /// `text` anew. NoLength: the field is missing or its number is below 1.
  State read(const std::string& text);

  /// The number of the length field, once Complete: the low 32 bits of what a 64-bit strtol() gives.
  std::int32_t contentLength() const { return _contentLength; }
  /// Where in the text the body starts, once Complete.
  std::size_t bodyStart() const { return _bodyStart; }

 private:
  bool findBody(const std::string& text);

  std::size_t _scanned = 0;      // bytes at whose start nothing new can be found
  std::size_t _lengthStart = 0;  // where the number of the length field starts; 0 while there is none
  std::size_t _bodyStart = 0;
  std::int32_t _contentLength = 0;
};

}  // namespace TarnXmlRpc

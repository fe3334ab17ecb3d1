#include "xmlrpc/HttpHead.h"

#include <strings.h>

#include <string_view>

#include "xmlrpc/Locale.h"
#include "xmlrpc/XmlNumbers.h"

namespace TarnXmlRpc {

namespace {

constexpr std::string_view LENGTH_FIELD = "content-length: ";
constexpr std::string_view HEAD_END = "\r\n\r\n";
constexpr std::string_view BARE_HEAD_END = "\n\n";

/// Whether `expected` stands at `at` and at least one byte follows it.
bool StandsBefore(const std::string& text, std::size_t at, std::string_view expected) {
  return text.size() - at > expected.size() && text.compare(at, expected.size(), expected) == 0;
}

bool LengthFieldAt(const std::string& text, std::size_t at) {
  return text.size() - at > LENGTH_FIELD.size() &&
         strncasecmp_l(text.c_str() + at, LENGTH_FIELD.data(), LENGTH_FIELD.size(), CLocale()) == 0;
}

}  // namespace

bool HttpHead::findBody(const std::string& text) {
  for (std::size_t at = _scanned; at < text.size(); ++at) {
    switch (text[at]) {
      case 'C':
      case 'c':
        if (LengthFieldAt(text, at)) _lengthStart = at + LENGTH_FIELD.size();
        break;
      case '\r':
        _bodyStart = StandsBefore(text, at, HEAD_END) ? at + HEAD_END.size() : 0;
        break;
      case '\n':
        _bodyStart = StandsBefore(text, at, BARE_HEAD_END) ? at + BARE_HEAD_END.size() : 0;
        break;
      default:
        break;
    }
    if (_bodyStart != 0) return true;
  }
  // The last bytes were too near to the end to tell: with more text, the longest of the three may start at any of them.
  if (text.size() > LENGTH_FIELD.size()) _scanned = text.size() - LENGTH_FIELD.size();
  return false;
}

HttpHead::State HttpHead::read(const std::string& text) {
  if (!findBody(text)) return State::Incomplete;
  if (_lengthStart == 0) return State::NoLength;
  std::int64_t number = 0;
  std::size_t at = _lengthStart;
  if (!ScanInteger(text, at, number)) return State::NoLength;
  _contentLength = static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
  return _contentLength < 1 ? State::NoLength : State::Complete;
}

}  // namespace TarnXmlRpc

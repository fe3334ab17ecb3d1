#pragma once

#include <string>

namespace TarnXmlRpc {

inline constexpr char XMLRPC_VERSION[] = "TARNXMLRPC++ 1.0";

// The envelope of requests and responses (XML-RPC, http://xmlrpc.com). White space is part of each text.
inline constexpr char XML_TAG_VERSION[] = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n";
inline constexpr char XML_TAG_METHODCALL[] = "<methodCall>";
inline constexpr char XML_ENDTAG_METHODCALL[] = "</methodCall>\r\n";
inline constexpr char XML_TAG_METHODNAME[] = "<methodName>";
inline constexpr char XML_ENDTAG_METHODNAME[] = "</methodName>\r\n";
inline constexpr char XML_TAG_PARAMS[] = "<params>";
inline constexpr char XML_ENDTAG_PARAMS[] = "</params>";
inline constexpr char XML_TAG_PARAM[] = "<param>";
inline constexpr char XML_ENDTAG_PARAM[] = "</param>";
inline constexpr char XML_TAG_METHODRESPONSE[] = "<methodResponse>";
inline constexpr char XML_TAG_FAULT[] = "<fault>";
inline constexpr char XML_TAG_RESPONSE[] = "<methodResponse><params><param>\r\n\t";
inline constexpr char XML_ENDTAG_RESPONSE[] = "\r\n</param></params></methodResponse>\r\n";
inline constexpr char XML_TAG_FAULTRESPONSE[] = "<methodResponse><fault>\r\n\t";
inline constexpr char XML_ENDTAG_FAULTRESPONSE[] = "\r\n</fault></methodResponse>\r\n";
inline constexpr char FAULTCODE[] = "faultCode";
inline constexpr char FAULTSTRING[] = "faultString";

/// Tag scanning, entity coding, response building and the library's log. Offsets are bytes into `xml`; one below zero
/// or past the end finds nothing, and an offset is moved only by success.
class XmlRpcUtil {
 public:
  /// Skips white space; true, and the offset past it, if `tag` stands there.
  static bool nextTagIs(const char* tag, const std::string& xml, int* offset);
  /// With `emptyElement`, the same for the empty-element form of `tag`: "<data/>" or "<data />" for "<data>".
  static bool nextTagIs(const char* tag, const std::string& xml, int* offset, bool emptyElement);
  /// True, and the offset past it, if `tag` stands anywhere from the offset on.
  static bool findTag(const char* tag, const std::string& xml, int* offset);
  /// The text between the next `tag` and its end tag, the offset past the end tag; empty if either is missing.
  static std::string parseTag(const char* tag, const std::string& xml, int* offset);
  /// The tag that stands at the offset (white space skipped), up to its ">" or the end of the text; else empty.
  static std::string getNextTag(const std::string& xml, int* offset);

  /// Replaces < > & ' " by their entities.
  static std::string xmlEncode(const std::string& text);
  /// The reverse. An "&" that begins none of the five is kept; numeric references are not read.
  static std::string xmlDecode(const std::string& text);

  /// Sets `out` to a whole response document around the XML text of one value.
  static void generateResponse(std::string& out, const std::string& resultXml);
  /// Sets `out` to a whole fault document.
  static void generateFaultResponse(std::string& out, const std::string& message, int code);

  /// Hands the message to the log handler if `level` is at most the verbosity. At most 1022 characters are kept.
  static void log(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  /// Hands the message to the error handler, cut in the same way.
  static void error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
};

}  // namespace TarnXmlRpc

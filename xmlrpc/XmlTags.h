#pragma once

namespace TarnXmlRpc {

// The tags of a value, each in the long set, the one that every XML-RPC server reads, and in the compact short one.
#define TARN_XML_TAGS(TAG)                   \
  TAG(VALUE, "value", "va")                  \
  TAG(BOOLEAN, "boolean", "bo")              \
  TAG(DOUBLE, "double", "do")                \
  TAG(INT, "int", "int")                     \
  TAG(I4, "i4", "i4")                        \
  TAG(I8, "i8", "i8")                        \
  TAG(STRING, "string", "str")               \
  TAG(DATETIME, "dateTime.iso8601", "dtime") \
  TAG(BASE64, "base64", "b64")               \
  TAG(ARRAY, "array", "ar")                  \
  TAG(DATA, "data", "da")                    \
  TAG(STRUCT, "struct", "st")                \
  TAG(MEMBER, "member", "me")                \
  TAG(NAME, "name", "na")

// SET1_XML_TAG_VALUE and so on: the long set; SET2_...: the short one.
#define TARN_XML_TAG(NAME, LONG, SHORT)                           \
  inline constexpr char SET1_XML_TAG_##NAME[] = "<" LONG ">";     \
  inline constexpr char SET1_XML_ENDTAG_##NAME[] = "</" LONG ">"; \
  inline constexpr char SET2_XML_TAG_##NAME[] = "<" SHORT ">";    \
  inline constexpr char SET2_XML_ENDTAG_##NAME[] = "</" SHORT ">";
TARN_XML_TAGS(TARN_XML_TAG)
#undef TARN_XML_TAG

/// XML_TAG_VALUE[set] and so on, by tag set: 0 long, 1 short.
struct XmlTags {
#define TARN_XML_TAG(NAME, LONG, SHORT)                                                              \
  static constexpr const char* const XML_TAG_##NAME[2] = {SET1_XML_TAG_##NAME, SET2_XML_TAG_##NAME}; \
  static constexpr const char* const XML_ENDTAG_##NAME[2] = {SET1_XML_ENDTAG_##NAME, SET2_XML_ENDTAG_##NAME};
  TARN_XML_TAGS(TARN_XML_TAG)
#undef TARN_XML_TAG
};

#undef TARN_XML_TAGS

}  // namespace TarnXmlRpc

#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "xmlrpc/XmlRpcException.h"
#include "xmlrpc/XmlTags.h"

template <class SI_CHAR, class SI_STRLESS, class SI_CONVERTER>
class CSimpleIniTempl;
template <class SI_CHAR>
struct SI_GenericNoCase;
template <class SI_CHAR>
class SI_ConvertA;

namespace TarnXmlRpc {

/// One XML-RPC value of any type: what every parameter, result and fault is made of. It owns its storage; copies are
/// deep, a move takes the storage over and leaves the source invalid. One thread at a time.
///
/// A value takes a type by construction, by assignment, by reading (fromXml(), fromINIFile()) or, while it is invalid,
/// by the first access through a non-const assert...() or operator[]. After that the type stays until the next
/// assignment or invalidate(): access of another type throws XmlRpcException and leaves the value as it was; nothing is
/// converted.
class XmlRpcValue : public XmlTags {
 public:
  enum Type : int {
    TypeInvalid = 0,
    TypeBoolean = 1,
    TypeInt = 2,
    TypeDouble = 3,
    TypeString = 4,
    TypeDateTime = 5,
    TypeBase64 = 6,
    TypeArray = 7,
    TypeStruct = 8,
    TypeInt64 = 9
  };

  using Ini = CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>>;

  /// The deepest nesting that a document may have to be read: the outermost value is at depth 1. A document in which
  /// the reader meets a value deeper than this is refused whole.
  static constexpr int MaximumDepth = 256;

  /// The printf format of doubles, in XML and in the INI rendering. Texts are cut to what the writers' buffers hold.
  inline static std::string m_DoubleFormat = "%.15g";

  XmlRpcValue() noexcept {}
  XmlRpcValue(bool value) noexcept : _type(TypeBoolean) { _value.asBool = value; }
  XmlRpcValue(int value) noexcept : _type(TypeInt) { _value.asInt = value; }
  XmlRpcValue(long value) noexcept : XmlRpcValue(static_cast<long long>(value)) {}
  XmlRpcValue(long long value) noexcept : _type(TypeInt64) { _value.asInt64 = value; }
  XmlRpcValue(double value) noexcept : _type(TypeDouble) { _value.asDouble = value; }
  /// A null pointer is the empty text.
  XmlRpcValue(const char* value);
  XmlRpcValue(const std::string& value);
  /// tm_year is the full year and tm_mon 1 to 12, as they stand in the XML text; see docs/library.md.
  XmlRpcValue(const std::tm& value);
  /// Binary data.
  XmlRpcValue(const std::vector<char>& value);
  XmlRpcValue(std::string&& value);
  XmlRpcValue(std::vector<char>&& value);
  XmlRpcValue(const void*) = delete;
  XmlRpcValue(const volatile void*) = delete;
  XmlRpcValue(unsigned) = delete;
  XmlRpcValue(unsigned long) = delete;
  XmlRpcValue(unsigned long long) = delete;
  XmlRpcValue(long double) = delete;
  XmlRpcValue(const XmlRpcValue& other);
  XmlRpcValue(XmlRpcValue&& other) noexcept { takeStorage(other); }
  virtual ~XmlRpcValue() { releaseStorage(); }

  /// `other` may be a part of this value. If the copy cannot be allocated, this value stays as it was.
  XmlRpcValue& operator=(const XmlRpcValue& other);
  XmlRpcValue& operator=(XmlRpcValue&& other) noexcept;
  XmlRpcValue& operator=(const bool& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const int& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const long& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const long long& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const double& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const char* value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const std::string& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const std::tm& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(const std::vector<char>& value) { return *this = XmlRpcValue(value); }
  XmlRpcValue& operator=(std::string&& value) { return *this = XmlRpcValue(std::move(value)); }
  XmlRpcValue& operator=(std::vector<char>&& value) { return *this = XmlRpcValue(std::move(value)); }
  XmlRpcValue& operator=(const void*) = delete;
  XmlRpcValue& operator=(const volatile void*) = delete;
  XmlRpcValue& operator=(unsigned) = delete;
  XmlRpcValue& operator=(unsigned long) = delete;
  XmlRpcValue& operator=(unsigned long long) = delete;
  XmlRpcValue& operator=(long double) = delete;

  /// Frees what the value holds and makes it invalid.
  void invalidate() noexcept {
    releaseStorage();
    _type = TypeInvalid;
    _tagSet = 0;
    _value.asInt64 = 0;
  }

  Type getType() const { return _type; }
  bool valid() const { return _type != TypeInvalid; }
  /// The tag set the value was read in: 0 long, 1 short. 0 for a value built in memory. fromXml() leaves that of the
  /// start tag on what it could not read, if it was no struct.
  int getTagSet() const { return _tagSet; }

  /// Bytes of binary data or text, elements of an array, members of a struct; 0 for every other type.
  int size() const;
  /// Members of a struct; 0 for every other type.
  int countMembers() const;

  // An invalid value takes a type on access: the non-const forms give it the wanted one with empty storage and throw on
  // any other mismatch; the const forms throw on every mismatch. The codes are in XmlRpcException.h.

  void assertTypeOrInvalid(Type t);
  void assertTypeOrInvalid(Type t) const;
  /// Makes the array at least `size` long, new elements invalid; it never shrinks. A negative size counts as 0.
  void assertArray(int size);
  void assertArray(int size) const;
  void assertStruct();
  void assertStruct() const;
  /// Makes the data at least `size` long, new bytes zero; it never shrinks. A negative size counts as 0.
  void assertBinaryData(int size);
  /// Returns the byte count.
  int assertBinaryData(int size) const;

  bool& getBool() { return inlineScalar(TypeBoolean).asBool; }
  const bool& getBool() const { return inlineScalar(TypeBoolean).asBool; }
  int& getInt() { return inlineScalar(TypeInt).asInt; }
  const int& getInt() const { return inlineScalar(TypeInt).asInt; }
  long long& getInt64() { return inlineScalar(TypeInt64).asInt64; }
  const long long& getInt64() const { return inlineScalar(TypeInt64).asInt64; }
  double& getDouble() { return inlineScalar(TypeDouble).asDouble; }
  const double& getDouble() const { return inlineScalar(TypeDouble).asDouble; }
  std::string& getString();
  const std::string& getString() const;
  std::tm& getDateTime();
  const std::tm& getDateTime() const;

  /// Throws CODE_TYPE_ERROR unless the value is binary data.
  const std::vector<char>& getBinaryData() const;
  /// The byte at `index`. Throws as above; outside the data CODE_BINARY_RANGE, with the text "type error", kept for
  /// compatibility.
  unsigned char getBinaryDataAt(int index) const;

  /// The element at `index`; the non-const form grows the array to hold it, which moves the elements: references to
  /// them and assignments like v[99] = v[0] need the array to have its size before. A negative index or INT_MAX throws
  /// as one too large does (CODE_ARRAY_RANGE).
  XmlRpcValue& operator[](int index);
  const XmlRpcValue& operator[](int index) const;
  /// All elements, for loops; throws CODE_NO_ARRAY unless the value is an array.
  const std::vector<XmlRpcValue>& elements() const;
  /// The member of that name, which is made (invalid) when it is absent: reading an absent member creates it.
  XmlRpcValue& operator[](const char* name);
  XmlRpcValue& operator[](const std::string& name);
  /// All members by name, for loops; throws CODE_NO_STRUCT unless the value is a struct.
  const std::map<std::string, XmlRpcValue>& members() const;

  // Look-ups that never throw: null, false or TypeInvalid on anything but a struct that has the member.

  /// The member itself, valid until the struct changes.
  const XmlRpcValue* findMember(const std::string& name) const;
  bool hasMember(const std::string& name) const;
  /// `out` is untouched when the result is false; it may be this value.
  bool getMember(const std::string& name, XmlRpcValue& out) const;
  Type getMemberType(const std::string& name) const;
  bool deleteMember(const std::string& name);
  /// Clears `names`, then fills it with the names in byte-wise order.
  bool getMembers(std::vector<std::string>& names) const;

  /// Struct members are compared in order by value alone, not by name; date-times without their day of the month; two
  /// NaN are unequal. Kept for compatibility.
  bool operator==(const XmlRpcValue& other) const;
  bool operator!=(const XmlRpcValue& other) const { return !(*this == other); }

  /// A struct with both "faultCode" and "faultString".
  bool IsFaultResponse() const;
  /// 0 when this is no fault. Throws CODE_TYPE_ERROR when the code is there but no int, as a server may send it.
  int GetFaultCode();
  /// Empty when this is no fault. Throws CODE_TYPE_ERROR when the text is there but no string.
  std::string GetFaultString();

  // Do nothing; kept for programs that call them.
  bool Test() const { return true; }
  void Trace(const char*, const char*) const {}

  // XML. `format` and `set` choose the tags: 1 the short set, any other number the long one. Offsets are bytes into the
  // text. Reading never throws on malformed text: false, the offset as it was, the value invalid.

  /// The XML text of the value; empty for an invalid one.
  std::string toXml(int format) const;
  std::string toXml(int format) { return static_cast<const XmlRpcValue*>(this)->toXml(format); }
  /// Reads one value from `*offset` and leaves `*offset` just past its closing tag. `xml` may be a text that this value
  /// holds. Takes time linear in the text, whatever the text is.
  bool fromXml(const std::string& xml, int* offset);

  // One type each. A writer on a value of another type gives an empty text; a reader starts after the type's tag,
  // leaves the closing tags unread, uses this value's tag set and takes the place of what the value held. On failure it
  // leaves the value as it was, but for structFromXml(), which leaves it invalid; that one reads a struct without
  // members where there is none.

  std::string boolToXml(int set) const;
  std::string intToXml(int set) const;
  std::string int64ToXml(int set) const;
  std::string doubleToXml(int set) const;
  std::string stringToXml(int set) const;
  std::string timeToXml(int set) const;
  std::string binaryToXml(int set) const;
  std::string arrayToXml(int set) const;
  std::string structToXml(int set) const;

  bool boolFromXml(const std::string& xml, int* offset);
  bool intFromXml(const std::string& xml, int* offset);
  bool int64FromXml(const std::string& xml, int* offset);
  bool doubleFromXml(const std::string& xml, int* offset);
  bool stringFromXml(const std::string& xml, int* offset);
  bool timeFromXml(const std::string& xml, int* offset);
  bool binaryFromXml(const std::string& xml, int* offset);
  bool arrayFromXml(const std::string& xml, int* offset);
  bool structFromXml(const std::string& xml, int* offset);

  // A generous guess of what a writer gives, in bytes (struct member names are left out), saturated at INT_MAX. What a
  // writer reserves is nearer to the text.

  int toXmlSize(int set) const;
  int boolToXmlSize(int set) const;
  int intToXmlSize(int set) const;
  int int64ToXmlSize(int set) const;
  int doubleToXmlSize(int set) const;
  int stringToXmlSize(int set) const;
  int timeToXmlSize(int set) const;
  int binaryToXmlSize(int set) const;
  int arrayToXmlSize(int set) const;
  int structToXmlSize(int set) const;

  // INI text, rendered by the library itself; docs/library.md has the rules. Binary data has no INI form: it adds
  // nothing and the result is false, while everything else is still rendered. The first form appends to `blocks`, one
  // for each section, and takes an invalid value for nothing (true); the second sets `out`, and is false for it.

  bool toINIFormat(std::vector<std::string>& blocks, const char* section, const char* key) const;
  bool toINIFormat(std::string& out, const char* section, const char* key);
  /// Not supported: false.
  bool fromINIFormat(const std::string& text);

  // INI files through SimpleIni. These four are in the component tarnxmlrpc::ini, the only one that links it.

  bool toINIFile(Ini& ini, const char* section, const char* key) const;
  bool toINIFile(const std::string& fileName) const;
  bool fromINIFile(Ini& ini);
  bool fromINIFile(const std::string& fileName);

  /// A readable dump, a line for each value, to `stream`; Print() to standard output; PrintIf() only if `condition` >
  /// 0.
  void FilePrint(std::FILE* stream, const char* name, const char* prefix) const;
  void Print(const char* name, const char* prefix) const;
  void PrintIf(int condition, const char* name, const char* prefix) const;
  /// A compact form in one line without a line end.
  std::ostream& write(std::ostream& stream) const;
  /// The same. Found for values alone, so that nothing else is printed by way of becoming one.
  friend std::ostream& operator<<(std::ostream& stream, const XmlRpcValue& value) { return value.write(stream); }

 private:
  friend class XmlReader;
  friend class XmlSize;
  template <int set>
  friend class XmlWriter;
  using Array = std::vector<XmlRpcValue>;
  using Struct = std::map<std::string, XmlRpcValue>;
  using Binary = std::vector<char>;

  union Storage {
    bool asBool;
    std::int32_t asInt;
    double asDouble;
    long long asInt64 = 0;
    std::string* asString;
    std::tm* asTime;
    Binary* asBinary;
    Array* asArray;
    Struct* asStruct;
  };

  /// Takes over what `other` holds, which becomes invalid. This value must hold nothing.
  void takeStorage(XmlRpcValue& other) noexcept {
    _type = other._type;
    _tagSet = other._tagSet;
    _value = other._value;
    other._type = TypeInvalid;
    other._tagSet = 0;
    other._value.asInt64 = 0;
  }
  void releaseStorage() noexcept {
    if (_type >= TypeString) deleteStorage();  // the types below own nothing
  }
  void deleteStorage() noexcept;
  template <typename Action>
  static void withStored(Type t, const Action& action);
  template <typename Action>
  void visit(const Action& action) const;
  Storage& inlineScalar(Type t);
  const Storage& inlineScalar(Type t) const;
  std::uint64_t expectedXml(int set) const;
  std::string toXmlOfType(Type type, int set) const;
  int toXmlSizeOfType(Type type, int set) const;
  bool fromXmlOfType(Type type, const std::string& xml, int* offset);
  template <typename Read>
  bool readFresh(const std::string& xml, int* offset, bool keepsAtFailure, const Read& read);

  std::unique_ptr<std::vector<std::string>> _iniLines;  // of the last INI rendering; values that had none stay small
  std::int32_t _tagSet = 0;
  Type _type = TypeInvalid;
  Storage _value;
};

/// The compact form of XmlRpcValue::write().
std::ostream& operator<<(std::ostream& stream, XmlRpcValue& value);

}  // namespace TarnXmlRpc

#include "xmlrpc/XmlRpcValue.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlRpcUtil.h"

namespace TarnXmlRpc {

namespace {

[[noreturn]] void ThrowTypeError() { throw XmlRpcException("type error", CODE_TYPE_ERROR); }
[[noreturn]] void ThrowNoArray() { throw XmlRpcException("type error: expected an array", CODE_NO_ARRAY); }
[[noreturn]] void ThrowArrayRange() { throw XmlRpcException("range error: array index too large", CODE_ARRAY_RANGE); }
[[noreturn]] void ThrowNoStruct() { throw XmlRpcException("type error: expected a struct", CODE_NO_STRUCT); }

int Count(std::size_t count) { return static_cast<int>(std::min<std::size_t>(count, INT_MAX)); }

// What is kept in place, and what a value owns.

template <typename T>
T CopyOf(T inPlace) {
  return inPlace;
}
template <typename T>
T* CopyOf(T* owned) {
  return new T(*owned);
}

template <typename T>
void MakeEmpty(T& inPlace) {
  inPlace = T();
}
template <typename T>
void MakeEmpty(T*& owned) {
  owned = new T();
}

template <typename T>
void Free(T) {}
template <typename T>
void Free(T* owned) {
  delete owned;
}

template <typename T>
std::size_t SizeOf(const T&) {
  return 0;
}
std::size_t SizeOf(const std::string& text) { return text.size(); }
template <typename T>
std::size_t SizeOf(const std::vector<T>& parts) {
  return parts.size();
}
template <typename Name, typename T>
std::size_t SizeOf(const std::map<Name, T>& members) {
  return members.size();
}

template <typename T>
bool Same(const T& a, const T& b) {
  return a == b;  // a NaN equals nothing, another NaN included
}
bool Same(const std::tm& a, const std::tm& b) {
  // Without the day of the month, which is kept for compatibility: a setting stamped on another day counts as the same.
  return a.tm_sec == b.tm_sec && a.tm_min == b.tm_min && a.tm_hour == b.tm_hour && a.tm_mon == b.tm_mon &&
         a.tm_year == b.tm_year;
}
template <typename Name, typename T>
bool Same(const std::map<Name, T>& a, const std::map<Name, T>& b) {
  // Side by side in name order, by value alone: that names do not count is kept for compatibility.
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& one, const auto& other) { return one.second == other.second; });
}

}  // namespace

XmlRpcValue::XmlRpcValue(const char* value) : _type(TypeString) {
  _value.asString = new std::string(value == nullptr ? "" : value);
}

XmlRpcValue::XmlRpcValue(const std::string& value) : _type(TypeString) { _value.asString = new std::string(value); }

XmlRpcValue::XmlRpcValue(const std::tm& value) : _type(TypeDateTime) { _value.asTime = new std::tm(value); }

XmlRpcValue::XmlRpcValue(const std::vector<char>& value) : _type(TypeBase64) { _value.asBinary = new Binary(value); }

XmlRpcValue::XmlRpcValue(std::string&& value) : _type(TypeString) {
  _value.asString = new std::string(std::move(value));
}

XmlRpcValue::XmlRpcValue(std::vector<char>&& value) : _type(TypeBase64) {
  _value.asBinary = new Binary(std::move(value));
}

XmlRpcValue::XmlRpcValue(const XmlRpcValue& other) : XmlTags(), _tagSet(other._tagSet), _type(other._type) {
  // Never as a whole as well: GCC then takes an int64 for the double in its place, of which the x87 changes some bits.
  withStored(_type, [&](auto member) { _value.*member = CopyOf(other._value.*member); });
}

XmlRpcValue& XmlRpcValue::operator=(const XmlRpcValue& other) {
  if (this != &other) *this = XmlRpcValue(other);
  return *this;
}

XmlRpcValue& XmlRpcValue::operator=(XmlRpcValue&& other) noexcept {
  if (this != &other) {
    XmlRpcValue taken(std::move(other));  // first, since `other` may be a part of what is freed next
    invalidate();
    takeStorage(taken);
  }
  return *this;
}

void XmlRpcValue::deleteStorage() noexcept {
  withStored(_type, [&](auto member) { Free(_value.*member); });
}

int XmlRpcValue::size() const {
  std::size_t size = 0;
  visit([&](const auto& stored) { size = SizeOf(stored); });
  return Count(size);
}

int XmlRpcValue::countMembers() const { return _type == TypeStruct ? Count(_value.asStruct->size()) : 0; }

void XmlRpcValue::assertTypeOrInvalid(Type t) {
  if (_type == t) return;
  if (_type != TypeInvalid) ThrowTypeError();
  withStored(t, [&](auto member) { MakeEmpty(_value.*member); });
  _type = t;
}

void XmlRpcValue::assertTypeOrInvalid(Type t) const {
  if (_type != t) ThrowTypeError();
}

void XmlRpcValue::assertArray(int size) {
  if (_type != TypeArray && _type != TypeInvalid) ThrowNoArray();
  const std::size_t wanted = static_cast<std::size_t>(std::max(size, 0));
  if (_type == TypeInvalid) {
    _value.asArray = new Array(wanted);
    _type = TypeArray;
  } else if (_value.asArray->size() < wanted) {
    _value.asArray->resize(wanted);
  }
}

void XmlRpcValue::assertArray(int size) const {
  if (_type != TypeArray) ThrowNoArray();
  if (size > 0 && static_cast<std::size_t>(size) > _value.asArray->size()) ThrowArrayRange();
}

void XmlRpcValue::assertStruct() {
  if (_type != TypeStruct && _type != TypeInvalid) ThrowNoStruct();
  assertTypeOrInvalid(TypeStruct);
}

void XmlRpcValue::assertStruct() const {
  if (_type != TypeStruct) ThrowNoStruct();
}

XmlRpcValue::Storage& XmlRpcValue::inlineScalar(Type t) {
  assertTypeOrInvalid(t);
  return _value;
}

const XmlRpcValue::Storage& XmlRpcValue::inlineScalar(Type t) const {
  assertTypeOrInvalid(t);
  return _value;
}

std::string& XmlRpcValue::getString() {
  assertTypeOrInvalid(TypeString);
  return *_value.asString;
}

const std::string& XmlRpcValue::getString() const {
  assertTypeOrInvalid(TypeString);
  return *_value.asString;
}

std::tm& XmlRpcValue::getDateTime() {
  assertTypeOrInvalid(TypeDateTime);
  return *_value.asTime;
}

const std::tm& XmlRpcValue::getDateTime() const {
  assertTypeOrInvalid(TypeDateTime);
  return *_value.asTime;
}

XmlRpcValue& XmlRpcValue::operator[](int index) {
  if (_type != TypeArray && _type != TypeInvalid) ThrowNoArray();
  if (index < 0 || index == INT_MAX) ThrowArrayRange();
  assertArray(index + 1);
  return (*_value.asArray)[static_cast<std::size_t>(index)];
}

const XmlRpcValue& XmlRpcValue::operator[](int index) const {
  if (_type != TypeArray) ThrowNoArray();
  if (index < 0 || index == INT_MAX) ThrowArrayRange();
  assertArray(index + 1);
  return (*_value.asArray)[static_cast<std::size_t>(index)];
}

const std::vector<XmlRpcValue>& XmlRpcValue::elements() const {
  assertArray(0);
  return *_value.asArray;
}

XmlRpcValue& XmlRpcValue::operator[](const char* name) { return (*this)[std::string(name == nullptr ? "" : name)]; }

XmlRpcValue& XmlRpcValue::operator[](const std::string& name) {
  assertStruct();
  return (*_value.asStruct)[name];
}

const std::map<std::string, XmlRpcValue>& XmlRpcValue::members() const {
  assertStruct();
  return *_value.asStruct;
}

const XmlRpcValue* XmlRpcValue::findMember(const std::string& name) const {
  if (_type != TypeStruct) return nullptr;
  const auto found = _value.asStruct->find(name);
  return found == _value.asStruct->end() ? nullptr : &found->second;
}

bool XmlRpcValue::hasMember(const std::string& name) const { return findMember(name) != nullptr; }

bool XmlRpcValue::getMember(const std::string& name, XmlRpcValue& out) const {
  const XmlRpcValue* member = findMember(name);
  if (member == nullptr) return false;
  out = *member;
  return true;
}

XmlRpcValue::Type XmlRpcValue::getMemberType(const std::string& name) const {
  const XmlRpcValue* member = findMember(name);
  return member == nullptr ? TypeInvalid : member->_type;
}

bool XmlRpcValue::deleteMember(const std::string& name) {
  if (_type != TypeStruct) return false;
  const auto found = _value.asStruct->find(name);
  if (found == _value.asStruct->end()) return false;
  _value.asStruct->erase(found);  // by position: `name` may be a part of the member
  return true;
}

bool XmlRpcValue::getMembers(std::vector<std::string>& names) const {
  names.clear();
  if (_type != TypeStruct) return false;
  names.reserve(_value.asStruct->size());
  for (const auto& member : *_value.asStruct) names.push_back(member.first);
  return true;
}

bool XmlRpcValue::operator==(const XmlRpcValue& other) const {
  if (_type != other._type) return false;
  bool same = true;
  withStored(_type, [&](auto member) { same = Same(Stored(_value.*member), Stored(other._value.*member)); });
  return same;
}

bool XmlRpcValue::IsFaultResponse() const { return hasMember(FAULTCODE) && hasMember(FAULTSTRING); }

int XmlRpcValue::GetFaultCode() { return IsFaultResponse() ? (*this)[FAULTCODE].getInt() : 0; }

std::string XmlRpcValue::GetFaultString() {
  return IsFaultResponse() ? (*this)[FAULTSTRING].getString() : std::string();
}

}  // namespace TarnXmlRpc

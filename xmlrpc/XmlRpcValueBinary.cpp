#include <algorithm>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

namespace {

[[noreturn]] void ThrowNoBinary() { throw XmlRpcException("type error: expected binary data", CODE_NO_BINARY); }

}  // namespace

const std::vector<char>& XmlRpcValue::getBinaryData() const {
  assertTypeOrInvalid(TypeBase64);
  return *_value.asBinary;
}

unsigned char XmlRpcValue::getBinaryDataAt(int index) const {
  const Binary& data = getBinaryData();
  if (index < 0 || static_cast<std::size_t>(index) >= data.size()) {
    throw XmlRpcException("type error", CODE_BINARY_RANGE);
  }
  return static_cast<unsigned char>(data[static_cast<std::size_t>(index)]);
}

void XmlRpcValue::assertBinaryData(int size) {
  if (_type != TypeBase64 && _type != TypeInvalid) ThrowNoBinary();
  const std::size_t wanted = static_cast<std::size_t>(std::max(size, 0));
  if (_type == TypeInvalid) {
    _value.asBinary = new Binary(wanted);
    _type = TypeBase64;
  } else if (_value.asBinary->size() < wanted) {
    _value.asBinary->resize(wanted);
  }
}

int XmlRpcValue::assertBinaryData(int size) const {
  if (_type != TypeBase64) ThrowNoBinary();
  if (size > this->size()) throw XmlRpcException("range error: index too large", CODE_BINARY_RANGE);
  return this->size();
}

}  // namespace TarnXmlRpc

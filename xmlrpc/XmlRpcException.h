#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace TarnXmlRpc {

// The codes that values throw with.
inline constexpr std::int32_t CODE_TYPE_ERROR = -4303;    // access of another type
inline constexpr std::int32_t CODE_NO_ARRAY = -4304;      // an array was expected
inline constexpr std::int32_t CODE_ARRAY_RANGE = -4305;   // the array has no such element
inline constexpr std::int32_t CODE_NO_STRUCT = -4306;     // a struct was expected
inline constexpr std::int32_t CODE_NO_BINARY = -4325;     // binary data was expected
inline constexpr std::int32_t CODE_BINARY_RANGE = -4326;  // the data has no such byte

/// The library's one exception: a message and a signed 32-bit code. Thrown by value, caught by reference.
class XmlRpcException : public std::exception {
 public:
  explicit XmlRpcException(std::string message, std::int32_t code = -1) : _message(std::move(message)), _code(code) {}

  const std::string& getMessage() const { return _message; }
  std::int32_t getCode() const { return _code; }
  const char* what() const noexcept override { return _message.c_str(); }

 private:
  std::string _message;
  std::int32_t _code;
};

}  // namespace TarnXmlRpc

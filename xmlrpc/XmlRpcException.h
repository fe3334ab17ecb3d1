#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace TarnXmlRpc {

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

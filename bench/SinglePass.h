#pragma once

#include <array>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/// What decoding costs at least: reads the shapes of Documents.h in one pass, and only as our writer writes them. It
/// believes every text, and knows neither blanks nor other tags.
class SinglePass {
 public:
  struct Value;
  using Array = std::vector<Value>;
  using Struct = std::map<std::string, Value, std::less<>>;
  struct Value {
    std::variant<std::monostate, bool, int, double, std::string, std::unique_ptr<std::vector<char>>, Array,
                 std::unique_ptr<Struct>>
        is;
  };

  explicit SinglePass(const std::string& xml) : _at(xml.data()) {}

  Value value() {
    Value value;
    skip("<value>");
    if (*_at != '<') {
      value.is = decoded();
    } else {
      switch (_at[1]) {
        case 'a':
          array(value.is.emplace<Array>());
          break;
        case 's':
          members(value);
          break;
        case 'd':
          number(value.is.emplace<double>(), "<double>");
          break;
        case 'i':
          number(value.is.emplace<int>(), "<i4>");
          break;
        default:
          _at[2] == 'o' ? boolean(value) : base64(value);
      }
    }
    skip("</value>");
    return value;
  }

 private:
  void skip(std::string_view tag) { _at += tag.size(); }
  bool is(std::string_view tag) const { return std::memcmp(_at, tag.data(), tag.size()) == 0; }

  template <typename Number>
  void number(Number& number, std::string_view tag) {
    skip(tag);
    _at = std::from_chars(_at, _at + 40, number).ptr + 1;
    skip(tag);
  }

  void boolean(Value& value) {
    skip("<boolean>");
    value.is = *_at == '1';
    skip("1</boolean>");
  }

  /// Up to the next tag.
  std::string decoded() {
    const char* const end = static_cast<const char*>(rawmemchr(_at, '<'));
    std::string text;
    text.reserve(static_cast<std::size_t>(end - _at));
    while (const void* const found = std::memchr(_at, '&', static_cast<std::size_t>(end - _at))) {
      const char* const entity = static_cast<const char*>(found);
      text.append(_at, entity);
      text += entity[1] == 'l' ? '<' : entity[1] == 'g' ? '>' : entity[1] == 'q' ? '"' : entity[2] == 'm' ? '&' : '\'';
      _at = static_cast<const char*>(rawmemchr(entity, ';')) + 1;
    }
    text.append(_at, end);
    _at = end;
    return text;
  }

  void array(Array& elements) {
    skip("<array><data>");
    while (is("<value>")) elements.push_back(value());
    skip("</data></array>");
  }

  void members(Value& value) {
    Struct& all = *value.is.emplace<std::unique_ptr<Struct>>(std::make_unique<Struct>());
    skip("<struct>");
    while (is("<member>")) {
      skip("<member><name>");
      std::string name = decoded();
      skip("</name>");
      all.emplace_hint(all.end(), std::move(name), this->value());
      skip("</member>");
    }
    skip("</struct>");
  }

  void base64(Value& value) {
    skip("<base64>");
    const char* const end = static_cast<const char*>(rawmemchr(_at, '<'));
    auto& bytes = *value.is.emplace<std::unique_ptr<std::vector<char>>>(std::make_unique<std::vector<char>>());
    bytes.resize(static_cast<std::size_t>(end - _at) / 4 * 3);
    for (char* out = bytes.data(); _at + 4 <= end; _at += 4, out += 3) {
      unsigned bits = 0;
      for (int i = 0; i < 4; ++i) bits = bits << 6 | DIGITS[static_cast<unsigned char>(_at[i])];
      out[0] = static_cast<char>(bits >> 16);
      out[1] = static_cast<char>(bits >> 8);
      out[2] = static_cast<char>(bits);
    }
    _at = end;
    skip("</base64>");
  }

  static constexpr auto DIGITS = [] {
    std::array<unsigned char, 256> digits = {};
    const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (unsigned char i = 0; i < 64; ++i) digits[static_cast<unsigned char>(alphabet[i])] = i;
    return digits;
  }();

  const char* _at;
};

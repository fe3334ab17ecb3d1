#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tool/Text.h"

// What the JSON of a scan and that of a change have in common. Pure.

namespace tarnddp {

/// Null for what is not known. A device's text becomes UTF-8.
template <typename T>
nlohmann::ordered_json JsonValue(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}
inline nlohmann::ordered_json JsonValue(const std::optional<std::string>& text) {
  return text ? nlohmann::ordered_json(Utf8(*text)) : nlohmann::ordered_json(nullptr);
}

/// On one line without its end, in ASCII alone.
inline std::string JsonText(const nlohmann::ordered_json& object) { return object.dump(-1, ' ', true); }

}  // namespace tarnddp

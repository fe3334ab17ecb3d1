#pragma once

/// White space as isspace() has it in the "C" locale, whatever the program's locale is.
constexpr bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

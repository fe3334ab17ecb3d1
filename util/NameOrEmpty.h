#pragma once

/// `interface`, or the empty name, which no interface has, for null.
inline const char* NameOrEmpty(const char* interface) { return interface == nullptr ? "" : interface; }

#pragma once

/// `interface`, or the empty name, which no interface has, for null.
inline const char* InterfaceName(const char* interface) { return interface == nullptr ? "" : interface; }

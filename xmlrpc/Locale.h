#pragma once

// Numbers on the wire never depend on the locale that a program has set. Internal to the library.

#include <locale.h>  // NOLINT(modernize-deprecated-headers): newlocale() is POSIX
#include <clocale>

namespace TarnXmlRpc {

/// The "C" locale, for the ..._l() functions. It lives as long as the process.
inline locale_t CLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

/// Puts the calling thread into the "C" locale while it exists.
class InCLocale {
 public:
  InCLocale() : _before(uselocale(CLocale())) {}
  ~InCLocale() { uselocale(_before); }
  InCLocale(const InCLocale&) = delete;
  InCLocale& operator=(const InCLocale&) = delete;

 private:
  locale_t _before;
};

}  // namespace TarnXmlRpc

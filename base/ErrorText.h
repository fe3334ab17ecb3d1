#pragma once

#include <cstring>

/// What strerror() says of `error`, an errno. Two threads may ask: the texts of known causes are constant in every C
/// library, and no other cause is asked for.
inline const char* ErrorText(int error) { return std::strerror(error); }  // NOLINT(concurrency-mt-unsafe)

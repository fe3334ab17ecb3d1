#pragma once

#include <cstddef>
#include <string>

namespace TarnXmlRpc {

/// Empties both buffers of a call, however it ends. Storage for small documents stays for the next call; that of a huge
/// one goes back, so that one answer does not cost its memory for good.
struct BuffersOfOneCall {
  std::string& first;
  std::string& second;

  ~BuffersOfOneCall() {
    for (std::string* const buffer : {&first, &second}) {
      constexpr std::size_t KEPT_STORAGE = 65536;
      buffer->clear();
      if (buffer->capacity() > KEPT_STORAGE) std::string().swap(*buffer);
    }
  }
};

}  // namespace TarnXmlRpc

#pragma once

#include <sys/socket.h>

#include <atomic>
#include <string_view>
#include <thread>

#include "net/CTCP.h"
#include "tests/unit/Test.h"

/// What came up to and including `end`, or before the client went away.
inline std::string ReadUpTo(int connection, std::string_view end) {
  std::string text;
  for (char byte = 0; text.size() < end.size() || text.substr(text.size() - end.size()) != end; text += byte) {
    if (recv(connection, &byte, 1, 0) != 1) break;
  }
  return text;
}

inline void Write(int connection, std::string_view text) { send(connection, text.data(), text.size(), MSG_NOSIGNAL); }

/// A server on a free loopback port. Its thread runs the script on one connection after the other and closes each.
struct LoopbackPeer {
  explicit LoopbackPeer(const std::function<void(int connection)>& script) {
    // Another program may have been given the same free port, and listen on it first.
    for (int tries = 0; tries < 100 && !_listener.OpenPort(INADDR_LOOPBACK, 0, 8);) ++tries;
    _listener.GetPort(port);
    _thread = std::thread([this, script] {
      for (int connection = -1; !_ends; CTCP::CloseSocket(connection)) {
        if (_listener.Accept(connection, 20)) script(connection);
      }
    });
  }
  ~LoopbackPeer() {
    _ends = true;
    _thread.join();
  }

  unsigned short port = 0;

 private:
  CTCP _listener;
  std::atomic<bool> _ends = false;
  std::thread _thread;
};

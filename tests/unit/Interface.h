#pragma once

#include "tests/unit/Test.h"
#include "util/EthernetCfg.h"
#include "util/Shell.h"
#include "util/_Others.h"

/// The end "dev0" of a cable, up with 192.168.77.2/24 and its MAC 00:1b:c4:0a:ff:05, the other end "far0" up; a `route`
/// first in PATH that notes its arguments before it runs the real one; and the terminal pipe to read what was printed.
class Interface : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, std::getenv("SANDBOX_HALT_MARK")) << "changes interfaces: runs inside scripts/sandbox only";
    setenv("PATH", ("/tmp/first:" + path_).c_str(), 1);
    Run("mkdir -p /tmp/first && cd /tmp/first && echo '#!/bin/sh\n"
        "echo \"$*\" >>/tmp/log; PATH=${PATH#*:} exec route \"$@\" 2>&-' >route && chmod 755 route");
    Run("ip link add dev0 address 00:1b:c4:0a:ff:05 type veth peer name far0 && ip link set far0 up &&"
        "ip address add 192.168.77.2/24 broadcast + dev dev0 && ip link set dev0 up");
    fcntl(ul_InitTerminalPipe(), F_SETFL, O_NONBLOCK);
    ASSERT_TRUE(EthernetCfg_Init("dev0"));
  }
  void TearDown() override {
    EthernetCfg_Final();
    ul_FinalTerminalPipe();
    Run("ip link del dev0");
  }

  static void Run(const std::string& command) { ASSERT_EQ(0, ul_RunCommand(command)) << command; }

  static std::string Output(const std::string& command) {
    std::string output;
    EXPECT_TRUE(ul_ReadCommand(command, output)) << command;
    return output;
  }

  /// The resolver file and then, after "route ", the arguments of each `route` since the last call.
  static std::string Changes() {
    return Output("exec 2>&-; cat /etc/resolf.conf; sed 's/^/route /' /tmp/log; rm /etc/resolf.conf /tmp/log");
  }

  /// What was printed since the last call, without the times, of which a few are a character longer: 1000.00ms.
  static std::string Printed() {
    char text[8192];
    const ssize_t size = read(ul_InitTerminalPipe(), text, sizeof text);
    std::string all(text, size < 0 ? 0 : static_cast<std::size_t>(size));
    for (std::size_t at = 0; (at = all.find('[', at)) != std::string::npos;)
      all.erase(at, all.find("]   ", at) + 4 - at);
    return all;
  }

 private:
  static inline const std::string path_ = std::getenv("PATH");
};

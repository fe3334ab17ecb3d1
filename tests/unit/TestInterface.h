#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "util/Shell.h"
#include "util/_Others.h"

/// The end "dev0" of a cable, up with 192.168.77.2/24 and its MAC 00:1b:c4:0a:ff:05, the other end "far0" up; a `route`
/// first in PATH that notes its arguments before it runs the real one; and the terminal pipe to read what was printed.
/// Changes interfaces, so it runs inside scripts/sandbox only.
class TestInterface : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, std::getenv("SANDBOX_HALT_MARK")) << "runs inside scripts/sandbox only";
    MakeCommand("route", "echo \"$*\" >>/tmp/route.log\nPATH=${PATH#*:} exec route \"$@\" 2>/dev/null");
    setenv("PATH", ("/tmp/first:" + path_).c_str(), 1);
    Run("ip link add dev0 address 00:1b:c4:0a:ff:05 type veth peer name far0 && ip link set far0 up &&"
        "ip address add 192.168.77.2/24 broadcast + dev dev0 && ip link set dev0 up");
    printed_ = ul_InitTerminalPipe();
    fcntl(printed_, F_SETFL, O_NONBLOCK);
  }
  void TearDown() override {
    ul_FinalTerminalPipe();
    Run("ip link del dev0");
    setenv("PATH", path_.c_str(), 1);
  }

  static void Run(const std::string& command) { ASSERT_EQ(0, ul_RunCommand(command)) << command; }

  static std::string Output(const std::string& command) {
    std::string output;
    EXPECT_TRUE(ul_ReadCommand(command, output)) << command;
    return output;
  }

  /// "inet 10.1.2.3/16 brd 10.1.255.255" of dev0, empty without an address.
  static std::string Address() { return Output("ip -4 -o address show dev dev0 | sed 's/.*inet/inet/; s/ scope.*//'"); }

  /// Puts a shell script first in PATH.
  static void MakeCommand(const std::string& name, const std::string& script) {
    Run("mkdir -p /tmp/first");
    std::ofstream("/tmp/first/" + name) << "#!/bin/sh\n" << script << "\n";
    Run("chmod 755 /tmp/first/" + name);
  }

  static std::string ReadFile(const char* name) {
    std::ifstream file(name);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// The arguments of each `route` since the last call, a line for each.
  static std::string Routes() {
    std::string routes = ReadFile("/tmp/route.log");
    unlink("/tmp/route.log");
    return routes;
  }

  /// What was printed since the last call, without the times.
  std::string Printed() const {
    std::string all(65536, '\0');
    const ssize_t size = read(printed_, &all[0], all.size());
    all.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    for (std::size_t at = 0; (at = all.find('[', at)) != std::string::npos;) {
      all.erase(at, sizeof("[14:03:07 123.46ms]   ") - 1);
    }
    return all;
  }

 private:
  const std::string path_ = std::getenv("PATH");
  int printed_ = -1;
};

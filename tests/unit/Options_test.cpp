#include "ddp/Options.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct Settings {
  std::string ip = "127.0.0.1", interface = "eth0";
  int port = 1200, daemon = 1, serviceSystem = 0;

  bool operator==(const Settings& other) const {
    return ip == other.ip && interface == other.interface && port == other.port && daemon == other.daemon &&
           serviceSystem == other.serviceSystem;
  }
};

std::ostream& operator<<(std::ostream& stream, const Settings& settings) {
  return stream << settings.ip << ' ' << settings.interface << ' ' << settings.port << ' ' << settings.daemon << ' '
                << settings.serviceSystem;
}

Settings Read(const std::vector<const char*>& arguments) {
  std::strcpy(IPAddress, "127.0.0.1");
  std::strcpy(InterfaceName, "eth0");
  port = 1200;
  Daemon = 1;
  ServiceSystem = 0;
  ReadOptions(static_cast<int>(arguments.size()), arguments.data());
  return {IPAddress, InterfaceName, port, Daemon, ServiceSystem};
}

}  // namespace

TEST(Options, AreReadInOneScanOfEveryArgument) {
  const std::string longest(127, 'x');
  const std::string tooLong(128, 'x');
  const Settings defaults;
  const struct {
    std::vector<const char*> arguments;
    Settings settings;
  } cases[] = {
      {{}, defaults},
      {{"tarnddpd"}, defaults},
      {{"/opt/ServiceSystem/tarnddpd"}, {"127.0.0.1", "eth0", 1200, 1, 1}},
      {{"x", "/ServiceSystem"}, defaults},
      {{"-nodaemon"}, {"127.0.0.1", "eth0", 1200, 0, 0}},
      {{"x", "-nodaemons", "-NODAEMON", "nodaemon"}, defaults},
      {{"x", "-ip", "10.0.0.2", "-port", "1300", "-if", "eth1"}, {"10.0.0.2", "eth1", 1300, 1, 0}},
      {{"x", "-ip", longest.c_str(), "-if", longest.c_str()}, {longest, longest, 1200, 1, 0}},
      {{"x", "-ip", tooLong.c_str(), "-if", tooLong.c_str()}, defaults},
      {{"x", "-ip", ""}, {"", "eth0", 1200, 1, 0}},
      {{"x", "-ip"}, defaults},
      {{"x", "-port"}, defaults},
      {{"x", "-if"}, defaults},
      // A value is an option word as well.
      {{"x", "-ip", "-nodaemon"}, {"-nodaemon", "eth0", 1200, 0, 0}},
      {{"x", "-if", "-ip", "10.0.0.2"}, {"10.0.0.2", "-ip", 1200, 1, 0}},
      {{"-if", "eth1"}, {"127.0.0.1", "eth1", 1200, 1, 0}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.settings, Read(c.arguments));
}

TEST(Options, RefuseALowPortAsAnUnsignedNumberOf32Bits) {
  const struct {
    const char* value;
    int port;
  } cases[] = {{"80", 1400},
               {"999", 1400},
               {"1000", 1000},
               {"0", 1400},
               {"none", 1400},
               {"", 1400},
               {"-1", -1},
               {"-80", -80},
               {" 1500x", 1500},
               {"70000", 70000},
               {"4294967297", 1400},
               {"4294968296", 1000},
               {"2147483648", INT32_MIN}};
  for (const auto& c : cases) EXPECT_EQ(c.port, Read({"x", "-port", c.value}).port) << c.value;
}

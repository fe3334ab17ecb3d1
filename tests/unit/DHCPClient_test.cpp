#include "util/DHCPClient.h"

#include "tests/unit/Interface.h"
#include "tests/unit/SystemCalls.h"
#include "util/DHCPMessage.h"

namespace {

DHCPBuffer Reply(std::uint8_t type, std::initializer_list<std::uint8_t> options) {
  DHCPBuffer reply = ul_DHCPBuildDiscover({});  // which has transaction and message type where a reply has them
  reply[0] = 2;
  reply[16] = 10;
  reply[242] = type;
  std::copy(options.begin(), options.end(), reply.begin() + 243);
  return reply;
}

/// A server that gives `answers`, whatever it is sent, and a clock that nobody waits for; `log` tells what happens.
struct Wire : ReplacedCalls {
  std::deque<DHCPBuffer> answers;
  std::string log;

  Wire() {
    const auto text = [](const sockaddr* address) {
      const auto* const inet = reinterpret_cast<const sockaddr_in*>(address);
      return inet_ntoa(inet->sin_addr) + (":" + std::to_string(ntohs(inet->sin_port))) + "\n";
    };
    on_bind = [this, text](int own, const sockaddr* address, socklen_t size) {
      log += "bind " + text(address);
      return real_bind(own, address, size);
    };
    on_sendto = [this, text](int own, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length) {
      const auto* const bytes = static_cast<const unsigned char*>(data);
      const bool isOurs = bytes[33] == 5 && (bytes[242] == 1 || bytes[251] == 10);  // MAC, and address asked for
      log += "send " + std::to_string(size) + (isOurs ? " of type " : "? ") + std::to_string(bytes[242]) + " to " +
             text(to);
      return real_sendto(own, data, size, flags, to, length);
    };
    on_select = [this](int, fd_set* readers, fd_set*, fd_set*, timeval* limit) {
      log += std::string(readers->fds_bits[0] == 0 ? "for nobody " : "") + "wait " + std::to_string(limit->tv_sec) +
             " s " + std::to_string(limit->tv_usec) + "\n";
      return answers.empty() ? 0 : 1;
    };
    on_recv = [this](int, void* data, size_t size, int) -> ssize_t {
      std::memcpy(data, answers.front().data(), size);
      const bool isEmpty = answers.front()[0] == 0;
      answers.pop_front();
      return isEmpty ? 0 : 300;
    };
    on_nanosleep = [this](const timespec* wanted, timespec*) {
      log += "sleep " + std::to_string(wanted->tv_sec) + " s " + std::to_string(wanted->tv_nsec) + "\n";
      return 0;
    };
  }
};

}  // namespace

// One test, as the process remembers a MAC address and that it added the route for broadcasts.
TEST_F(Interface, DHCPTellsEachStepAndEndsAtTheFirstFailureWhichCostsItsSleeps) {
  const DHCPBuffer offer = Reply(2, {255}), nak = Reply(6, {1, 4, 255, 255, 0, 0, 255});
  const DHCPBuffer ack = Reply(5, {51, 4, 0, 1, 81, 128, 1, 4, 255, 255, 255, 0, 3, 4,   10, 0,
                                   0,  1, 6, 4, 10, 0,   0, 2, 28,  4,   10,  0, 0, 127, 255});
  const std::string client = "DHCP Client - ", error = "Error - Configure Network with DHCP - ",
                    called = client + "DHCP request called for interface ",
                    noMac = called + "absent\nError: get mac address: No such device\n" + client +
                            "ERROR: Could not read network settings of absent\n",
                    hasMac = called + "dev0\n" + client + "HW address of dev0 is 00:1b:c4:0a:ff:05\n",
                    route = "route add 255.255.255.255 netmask 0.0.0.0 dev dev0\n",
                    silent =
                        hasMac + client + route + client + route + error + "no response on dhcp discover\n" + route,
                    acked = hasMac + client + "DHCP acknowledge received: address=10.0.0.0 mask=",
                    set = client + "Configure dev0 with new network settings\nroute add default gw ",
                    applied = acked + "255.255.255.0 dns=10.0.0.2 gw=10.0.0.1 lease=86400s\n" + set +
                              "10.0.0.1\nnameserver 10.0.0.2\nroute del default\nroute add default gw 10.0.0.1\n",
                    sleeps = "sleep 1 s 0\nsleep 1 s 0\n",
                    discover = "bind 0.0.0.0:68\nsend 281 of type 1 to 255.255.255.255:67\nwait 2 s 0\n",
                    request = discover + "send 269 of type 3 to 255.255.255.255:67\nwait 2 s 0\n";
  const struct {
    const char* interface;
    int attempts;
    std::vector<DHCPBuffer> answers;
    int lease;  // -1 if nothing is applied
    std::string log, printed;
  } rows[] = {{"absent", 0, {}, -1, "", noMac},
              {"absent", 2, {}, -1, sleeps, noMac},
              {"dev0", 2, {}, -1, discover + sleeps, silent},
              {"dev0", 2, {ack}, -1, discover + sleeps, hasMac},
              {"dev0", 2, {DHCPBuffer{}}, -1, discover + sleeps, hasMac},
              {"dev0", 2, {offer}, -1, request + sleeps, hasMac + error + "no response from dhcp request\n"},
              {"dev0", 2, {offer, nak}, -1, request + sleeps, acked + "0.0.0.0 dns=0.0.0.0 gw=0.0.0.0 lease=0s\n"},
              {"dev0", 0, {}, 0, "", hasMac + set + "\nnameserver \nroute del default\nroute add default gw\n"},
              {"dev0", 2, {offer, ack}, 86400, request, applied}};
  const int input = dup(0);
  for (const auto& [interface, attempts, answers, lease, log, printed] : rows) {
    Run("ip route replace default dev dev0");  // takes the broadcasts
    Wire wire;
    wire.answers = {answers.begin(), answers.end()};
    const int before = CountDescriptors();
    unsigned leased = 77;  // stays so where nothing is applied
    EXPECT_EQ(lease >= 0, ul_ConfigureNetworkWithDHCP(interface, attempts, &leased));
    EXPECT_EQ(lease < 0 ? 77 : lease, static_cast<int>(leased));
    EXPECT_EQ(log, wire.log);
    EXPECT_EQ(printed, Printed() + Changes());
    EXPECT_EQ(log == sleeps ? -1 : 0, fcntl(0, F_GETFD));  // its descriptor before any socket
    dup2(input, 0);
    EXPECT_EQ(before, CountDescriptors());
  }
  close(input);
  EXPECT_EQ("10.0.0.0/24 brd 10.0.0.127\n", Output("ip -4 -o address show dev dev0 | cut -d' ' -f7-9"));

  // Each failure, as far as it ends the exchange. Without a socket to read the MAC address, the one read before counts.
  const std::string expected =
      "socket: 1,ioctl: 1,socket: 0 create socket,setsockopt: 0 set sock opt,setsockopt: 1 set sock opt,"
      "bind: 0 bind socket,sendto: 0 send dhcp discover,select: 0,recv: 0 receive data from socket,"
      "sendto: 0 send dhcp request,select: 0,recv: 0 receive data from socket,socket: 1,ioctl: 0";
  Wire wire;
  const std::string found = WithEachCallFailing([&] {
    Undisturbed([&] { return wire.answers = {offer, ack}, ul_RunCommand("ip route replace default dev dev0"); });
    const int result = ul_ConfigureNetworkWithDHCP("dev0", 1, nullptr);
    std::string told = Undisturbed([] { return Printed(); });
    const std::size_t at = told.find("could not "), end = told.find(" (", at);
    errno = EXDEV;
    return std::to_string(result) + (at == std::string::npos ? "" : " " + told.substr(at + 10, end - at - 10));
  });
  EXPECT_EQ(expected, std::regex_replace(found, std::regex("\n"), ",").substr(0, expected.size()));
}

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "util/DHCPMessage.h"
#include "util/EthernetCfg.h"
#include "util/RouteMessage.h"
#include "util/Shell.h"
#include "util/_Others.h"
#include "util/_Time.h"

namespace {

/// What has been printed since the last call; the first one opens the terminal pipe.
std::string Printed() {
  fcntl(ul_InitTerminalPipe(), F_SETFL, O_NONBLOCK);
  char text[8192];
  const ssize_t size = read(ul_InitTerminalPipe(), text, sizeof text);
  return std::string(text, size < 0 ? 0 : static_cast<std::size_t>(size));
}

/// The text with each number before its first ']' as "0".
std::string Shape(std::string text) {
  const char* const digits = "-0123456789";
  for (std::size_t at = 0; (at = text.find_first_of(digits, at)) < text.find(']'); ++at) {
    text.replace(at, std::min(text.find_first_not_of(digits, at), text.size()) - at, "0");
  }
  return text;
}

constexpr AbsTime_US START = 5000000000;  // more than 32 bits hold

std::string Text(AbsTime_NS time) { return std::to_string(time.seconds) + " s " + std::to_string(time.nanoseconds); }

/// A message of the routing table as the kernel lays it out.
struct Message {
  nlmsghdr header;
  rtmsg kind;
  rtattr first;
  in_addr_t destination;
  rtattr second;
  in_addr_t gateway;
};

Message Route(const char* destination, const char* gateway, std::uint8_t family = AF_INET,
              std::uint8_t table = RT_TABLE_MAIN) {
  return {{sizeof(Message), RTM_NEWROUTE, NLM_F_MULTI, 0, 0},
          {family, 0, 0, 0, table, 0, 0, 0, 0},
          {8, RTA_DST},
          inet_addr(destination),
          {8, RTA_GATEWAY},
          inet_addr(gateway)};
}

/// The leading `size` bytes of the messages, on the heap alone, for a sanitizer to see.
std::vector<std::uint8_t> Dump(const std::vector<Message>& messages, std::size_t size) {
  const auto* begin = reinterpret_cast<const std::uint8_t*>(messages.data());
  return {begin, begin + size};
}

/// The default gateway, "none" without one.
std::string Gateway(const std::vector<std::uint8_t>& messages) {
  in_addr gateway = {};
  const bool found = RouteMessage_FindDefaultGateway(messages.data(), messages.size(), if_indextoname, &gateway);
  return found ? inet_ntoa(gateway) : "none";
}

/// Writes bytes given as hexadecimal numbers between blanks.
DHCPBuffer Put(DHCPBuffer buffer, std::size_t at, const std::string& hex) {
  std::istringstream words(hex);
  for (std::string word; words >> word;) buffer.at(at++) = static_cast<std::uint8_t>(std::stoul(word, nullptr, 16));
  return buffer;
}

/// A reply to our messages with these options behind the code and length of the message type.
DHCPBuffer Reply(const std::string& options) {
  return Put(Put({}, 0, "02 01 06 00  7c d9 01 00  00 00 00 00  00 00 00 00  0a 01 02 03"), 240, "35 01 " + options);
}

}  // namespace

TEST(Console, PrefixFollowsFileAndLineAndTheWholeIsCut) {
  int writeEnd = ul_InitTerminalPipe() + 1;
  while (writeEnd < 100 && fcntl(writeEnd, F_GETFL) != O_WRONLY) ++writeEnd;
  EXPECT_EQ(0, fcntl(writeEnd, F_GETFD)) << "it blocks, and commands inherit it";
  const std::string longPath = "d/" + std::string(300, 'f'), text(2000, 'x'), time = "[0:0:0 0.0ms]   ";
  const std::tuple<const char*, int, std::string> cases[] = {
      {nullptr, -1, ""},        {nullptr, 0, time},
      {"a/c.c", -1, time},      {"a/b/c.c", 0, time + "c.c:0\t"},
      {"/", 7, time + "/:7\t"}, {longPath.c_str(), 7, time + std::string(255, 'f') + ":7\t"}};
  for (const auto& [file, line, prefix] : cases) {
    const AbsTime_US before = ul_Pr_GetLastPrintTime();
    const int written = ul_PrStdOut(file, line, "x%c", 'y');
    const std::string printed = Printed();
    EXPECT_EQ(prefix + "xy", Shape(printed));
    EXPECT_EQ(printed.size(), static_cast<std::size_t>(written));
    EXPECT_EQ(prefix.empty(), before == ul_Pr_GetLastPrintTime());
  }
  EXPECT_EQ(1023, ul_PrStdOut(nullptr, -1, "%s", text.c_str()));
  EXPECT_EQ(text.substr(0, 1023), Printed());
  EXPECT_EQ(1, ul_FinalTerminalPipe());
  EXPECT_EQ(2000, ul_PrStdOut("c.c", 7, "%s", text.c_str())) << "without a pipe the whole message counts";
  EXPECT_EQ(1, ul_FinalTerminalPipe());
}

TEST(Console, SystemErrorTellsErrnoAndAMillionfoldTimeAndPropertiesGoToTheHandlerOrThePipe) {
  Printed();
  ul_Configure_Pr_SetFirstPrintTimeToActualTime();
  EXPECT_NE(std::string::npos, Printed().find("\tPrStdOut starttime resetted !!!\n"));
  ul_Sleep_US(0, 100000);  // shows as 1 day 3 h 46 min 40 s
  for (const int line : {7, -1}) {
    errno = ENOENT;
    ul_PrSystemError("a/c.c", line, line < 0 ? "" : "open");
    const std::string prefix = line < 0 ? "" : "[0d 0h 0min 0s 0ms 0us]\tc.c.7\topen ";
    EXPECT_EQ(Shape(prefix + "error code = 2 (No such file or directory)\n"), Shape(Printed()));
  }
  static std::string handed;
  EXPECT_EQ(42, ul_PrintApplicationProperties([](const char* text) { return handed = text, 42; }, " end"));
  EXPECT_EQ("ThisApp: ParentProc(ID=0) Proc(ID=0/Prio=0) BaseThread(ID=0/Prio=0/Policy=SCHED_OTHER) ClockTick=0Hz end",
            Shape(handed));
  ul_PrintApplicationProperties(nullptr, " end");
  EXPECT_EQ(handed, Printed());
}

TEST(FormatDuration, StartsAtTheFirstUnitThatIsNotZero) {
  EXPECT_EQ("", ul_FormatDuration(0, true, true, true) + ul_FormatDuration(-5, true, true, true));
  EXPECT_EQ("23d 3h 33min 20s 0ms 0us", ul_FormatDuration(2000000, true, true, false));
  EXPECT_EQ("1h 0min 0s", ul_FormatDuration(3600.9, false, false, false));
  EXPECT_EQ("250us", ul_FormatDuration(0.00025, true, true, false));
  EXPECT_EQ("1s 500ms 0ns", ul_FormatDuration(1.5, true, false, true));
  EXPECT_EQ("18582494360528d 23h 57min 52s", ul_FormatDuration(1605527512749705472.0, false, false, false));
}

TEST(Shell, WordReachesACommandUnchangedWhateverItHolds) {
  for (const char* plain : {"", "-net", "gw.example_x/24,a@b+c%d:=1"}) EXPECT_EQ(plain, ul_ShellWord(plain));
  EXPECT_EQ("'~root'", ul_ShellWord(std::string("~root\0;halt", 11)));
  std::string all, output;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  ASSERT_TRUE(ul_ReadCommand("printf '%s|' " + ul_ShellWord(all) + " " + ul_ShellWord("$(echo x) `y` #"), output));
  EXPECT_EQ(all + "|$(echo x) `y` #|", output);
}

TEST(Shell, RunsNoLongerCommandThan1023BytesAndEachWithThePipeSignalAtItsDefault) {
  const std::string longest = "exit 5 #" + std::string(1015, 'x');
  std::string output = "before";
  EXPECT_EQ(5, WEXITSTATUS(ul_RunCommand(longest)));
  EXPECT_EQ(-1, ul_RunCommand(longest + "x"));
  EXPECT_EQ(E2BIG, errno);
  EXPECT_FALSE(ul_ReadCommand(longest + "x", output));
  EXPECT_EQ("before", output);
  void (*const handlers[])(int) = {SIG_IGN, SIG_DFL, [](int) {}};
  for (const auto handler : handlers) {
    std::signal(SIGPIPE, handler);
    // The inner shell ends itself by the signal unless it inherited it as ignored.
    EXPECT_EQ(128 + SIGPIPE, WEXITSTATUS(ul_RunCommand("sh -c 'kill -PIPE $$'; exit $?")));
    EXPECT_TRUE(ul_ReadCommand("sh -c 'kill -PIPE $$'; echo $?", output));
    EXPECT_EQ(std::to_string(128 + SIGPIPE) + "\n", output);
    EXPECT_EQ(handler, std::signal(SIGPIPE, SIG_DFL));
  }
}

TEST(Shell, CommandThatIsReadNeverWaitsForAStoppedReaderAndTheStandardDescriptorsAreLeftAlone) {
  int full[2] = {};
  std::string output;
  ASSERT_EQ(0, pipe2(full, O_CLOEXEC | O_NONBLOCK));
  while (write(full[1], &full, sizeof full) > 0) continue;
  fcntl(full[1], F_SETFL, 0);
  int saved[3] = {};
  for (int stream = 0; stream < 3; ++stream) saved[stream] = fcntl(stream, F_DUPFD_CLOEXEC, 10);
  alarm(20);  // a command that waits would wait for ever
  dup2(full[1], STDERR_FILENO);
  EXPECT_TRUE(ul_ReadCommand("echo noise >&2; echo heard", output));
  for (int stream = 0; stream < 3; ++stream) close(stream);
  std::string open;
  const bool read = ul_ReadCommand("cd /proc/$PPID/fd && echo *", open);
  alarm(0);
  for (int stream = 0; stream < 3; ++stream) dup2(saved[stream], stream);
  EXPECT_EQ("heard\n", output);
  EXPECT_TRUE(read);
  for (const char* standard : {" 0 ", " 1 ", " 2 "}) EXPECT_EQ(std::string::npos, (" " + open).find(standard)) << open;
  for (const int descriptor : {full[0], full[1], saved[0], saved[1], saved[2]}) close(descriptor);
}

TEST(Time, FloatsAreTruncatedTowardZeroAndNeverOverflow) {
  const std::pair<long double, AbsTime_US> cases[] = {
      {1.9999999L, 1999999}, {-0.0000015L, static_cast<AbsTime_US>(-1)}, {-0.0000009L, 0},
      {1e13L, INT64_MAX},    {-1e13L, AbsTime_US{INT64_MAX} + 1},        {std::nanl(""), 0}};
  for (const auto& [seconds, change] : cases) {
    AbsTime_US time = START;
    ul_MathAbsTime_AddFloat(&time, seconds);
    EXPECT_EQ(START + change, time) << seconds;
    ul_MathAbsTime_AddFloat_US(&time, -seconds * 1000000);
    EXPECT_NEAR(0, ul_MathAbsTime_SubFloat_US(time, START), 1) << seconds;
  }
}

TEST(Time, DifferencesAreSignedAndTheIntegerOneIsHeldIn32Bits) {
  EXPECT_EQ(2147483647, ul_MathAbsTime_Sub_US(START + 3000000000, START));
  EXPECT_EQ(INT32_MIN, ul_MathAbsTime_Sub_US(START, START + 3000000000));
  EXPECT_EQ(5, ul_MathAbsTime_Sub_US(3, static_cast<AbsTime_US>(-2)));
  EXPECT_EQ(-3e9, ul_MathAbsTime_SubFloat_US(START, START + 3000000000));
  EXPECT_DOUBLE_EQ(-3e3, ul_MathAbsTime_SubFloat(START, START + 3000000000));
}

TEST(Time, NanosecondSumsCarryOnceAndDifferencesStopAtZero) {
  EXPECT_EQ("-1 s 999999000", Text(ul_GetTime_NSFromUS(4294967295999999)));  // the seconds' low 32 bits
  EXPECT_EQ(static_cast<AbsTime_US>(-1500000), ul_GetTime_USFromNS({-2, 500000999}));
  AbsTime_NS time = {5, 999999998}, last = {2147483647, 999999999};
  ul_MathAbsTime_Add_NS(&time, -2, 1);
  EXPECT_EQ("3 s 999999999", Text(time));
  ul_MathAbsTime_Add_NS(&time, 0, 1);
  ul_MathAbsTime_Add_NS(&last, 0, 1);
  EXPECT_EQ("4 s 0, -2147483648 s 0", Text(time) + ", " + Text(last));
  EXPECT_EQ("0 s 0", Text(ul_MathAbsTime_Sub_NS({5, 100}, {6, 0})));
  EXPECT_EQ("0 s 999999999", Text(ul_MathAbsTime_Sub_NS({6, 0}, {5, 1})));
  EXPECT_EQ("-2147483648 s 999999999", Text(ul_MathAbsTime_Sub_NS({2147483647, 0}, {-2, 1})));
  EXPECT_TRUE(ul_MathAbsTime_IsHigher_NS({6, 0}, {5, 1}) && ul_MathAbsTime_IsLowerEqual_NS({5, 1}, {5, 1}));
}

TEST(RouteMessage, FirstDestinationThatContainsTheZeroAddressIsTheDefaultRoute) {
  const std::pair<Message, const char*> cases[] = {
      {Route("0.0.0.0", "10.9.9.9"), "10.9.9.9"},
      {Route("10.0.0.0", "10.9.9.9"), "10.9.9.9"},
      {Route("1.2.3.4", "10.9.9.9", AF_INET, RT_TABLE_LOCAL), "0.0.0.0"},  // not read, so zero
      {Route("1.2.3.4", "10.9.9.9", AF_INET6), "0.0.0.0"},
      {Route("192.168.1.0", "10.9.9.9"), "none"}};
  for (const auto& [route, gateway] : cases) {
    EXPECT_EQ(gateway, Gateway(Dump({Route("1.2.3.4", "1.1.1.1"), route}, 2 * sizeof route)));
  }
}

TEST(RouteMessage, ReadsAttributesButLengthsThatLieLeadNowhere) {
  Message route = Route("10.1.2.3", "0.0.0.0");
  route.first.rta_type = RTA_PREFSRC;
  route.second.rta_type = RTA_OIF;
  route.gateway = 1;
  const RouteInfo read = RouteMessage_Read(Dump({route}, sizeof route).data(), sizeof route, if_indextoname);
  EXPECT_EQ(inet_addr("10.1.2.3"), read.source.s_addr);
  EXPECT_STREQ("lo", read.interfaceName);

  route = Route("0.0.0.0", "10.9.9.9");
  for (std::size_t size = 0; size < sizeof route; ++size) {
    const std::vector<std::uint8_t> cut = Dump({route}, size);
    EXPECT_EQ(0U, RouteMessage_Read(cut.data(), size, if_indextoname).gateway.s_addr) << size;
    EXPECT_EQ("none", Gateway(cut)) << size;
  }
  route.first.rta_len = 5;  // padded to eight
  EXPECT_EQ("10.9.9.9", Gateway(Dump({route}, sizeof route)));
  for (const std::uint16_t length : std::initializer_list<std::uint16_t>{0, 3, 7, 9, 65535}) {
    route.second.rta_len = length;
    EXPECT_EQ("0.0.0.0", Gateway(Dump({route}, sizeof route))) << length;
  }
}

TEST(RouteMessage, EndOfTheDumpIsSeenInAnyMessageAndIsNoRoute) {
  const Message route = Route("10.1.0.0", "10.1.0.1");
  Message end = route, single = route, error = route, tooShort = route;
  end.header.nlmsg_type = NLMSG_DONE;
  single.header.nlmsg_flags = 0;
  error.header.nlmsg_type = NLMSG_ERROR;
  tooShort.header.nlmsg_len = 15;
  constexpr std::size_t one = sizeof route;
  const std::tuple<std::vector<std::uint8_t>, RouteDump, std::size_t> cases[] = {
      {Dump({route, route}, 2 * one), RouteDump::Continues, 2 * one},
      {Dump({route, end, error}, 3 * one), RouteDump::Ended, one},  // what is behind the end does not count
      {Dump({single, error}, 2 * one), RouteDump::Ended, one},      // no part of a dump
      {Dump({route, error}, 2 * one), RouteDump::Malformed, 99},
      {Dump({route, route}, 2 * one - 1), RouteDump::Malformed, 99},
      {Dump({tooShort}, one), RouteDump::Malformed, 99},
      {{}, RouteDump::Malformed, 99}};
  for (const auto& [datagram, state, expected] : cases) {
    std::size_t routes = 99;
    EXPECT_EQ(state, RouteMessage_ScanDatagram(datagram.data(), datagram.size(), &routes));
    EXPECT_EQ(expected, routes);
  }
}

TEST(DHCPMessage, OptionsAreWalkedWhateverTheySay) {
  const auto far = [](const DHCPBuffer& built, const std::string& options) {  // at the end of the options of a reply
    return Put(Put(Put(Put(built, 0, "02"), 240, "35 01 05 07 ff"), 500, "07 2c"), 546, options);
  };
  const DHCPBuffer discover = ul_DHCPBuildDiscover({}), request = ul_DHCPBuildRequest(discover, {}, {}, {});
  const std::tuple<DHCPBuffer, std::size_t, const char*, unsigned> cases[] = {
      {Reply("05"), 239, nullptr, 77},  // no answer
      {Reply("02"), 300, nullptr, 77},
      {Reply("05 03 08 0a 00 00 01 0a 00 00 02 33 04 80 00 00 01 ff 33 04"), 300, "10.0.0.1", 0x80000001},
      {Reply("05 00 03 04 0a 00 03 04 0a 00 00 01 03 04 0a 00 00 02"), 300, "10.0.0.2", 0},  // a pad has a length
      {Reply("05 03 01 0a 33 04 00 00 ff"), 300, "10.51.4.0", 0xff00},                       // four bytes each
      {Reply("05 07 fe 03 04 0a 00 00 01"), 300, "0.0.0.0", 0},
      {Reply("05 03 04 0a 00 00 01 33 04 00 00 00 07"), 246, "10.0.0.1", 7},  // walks four bytes past the reply
      {Reply("05 03 04 0a 00 00 01 33 04 00 00 00 07"), 245, "10.0.0.1", 0},
      {far(discover, "03 04"), 548, "45.0.0.0", 0},  // the value is the length of its options, noted behind them
      {far(request, "03 04"), 548, "33.0.0.0", 0},
      {far(request, "07 02 00 00 03 04"), 552, "0.0.0.0", 0}};  // behind the buffer
  for (const auto& [buffer, received, router, lease] : cases) {
    DHCPReply read = {};
    read.leaseSeconds = 77;
    EXPECT_EQ(router != nullptr, ul_DHCPReadReply(buffer, received, DHCP_ACK, &read));
    EXPECT_EQ(lease, read.leaseSeconds);
    EXPECT_STREQ(router != nullptr ? router : "0.0.0.0", inet_ntoa(read.router));
  }
}

TEST(MacText, IsSixGroupsOfOneOrTwoDigits) {
  unsigned char mac[6] = {};
  for (const char* text : {"0:1b:c4:0a:ff:05", "00:1B:C4:a:ff:5 ", "00:1b:c4:0a:ff:05x"}) {
    EXPECT_EQ(mac, ConverMacAddressStringIntoByte(text, mac));
    EXPECT_EQ(std::string("\0\x1b\xc4\x0a\xff\x05", 6), std::string(mac, mac + 6)) << text;
    mac[5] = 9;
  }
  for (const char* text :
       {"0:1b:c4:a:ff:5x", "01-1b-c4-0a-ff-05", "01:1b:c4:0a:ff:", "01:1b:c4:0a:fff:5", "01::c4:0a:ff:05",
        " 01:1b:c4:0a:ff:05", "01:1b:c4:a:\xff:5", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(nullptr, ConverMacAddressStringIntoByte(text, mac)) << testing::PrintToString(text);
    EXPECT_EQ(9, mac[5] + mac[0]);
  }
}

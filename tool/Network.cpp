#include "tool/Network.h"

#include <algorithm>
#include <array>
#include <boost/asio.hpp>
#include <deque>
#include <thread>
#include <utility>

#include "tool/Text.h"

namespace tarnddp {
namespace {

namespace asio = boost::asio;
using asio::ip::udp;
using Error = boost::system::error_code;

constexpr IPv4 GroupIPv4 = 0xe0000580;  // 224.0.5.128
constexpr const char* GroupIPv6 = "ff12::12";

udp::endpoint Endpoint(IPv4 address, std::uint16_t port) { return {asio::ip::address_v4(address), port}; }

udp::endpoint Endpoint(const std::string& linkLocal, unsigned index, std::uint16_t port) {
  asio::ip::address_v6 address = asio::ip::make_address_v6(linkLocal);
  address.scope_id(index);
  return {address, port};
}

void ThrowIf(int error) {
  if (error != 0) throw boost::system::system_error(error, boost::system::system_category());
}

}  // namespace

struct Network::Sockets {
  /// One interface. A socket that is not open stands for a way that is missing.
  struct Link {
    Link(asio::io_context& context, Interface of)
        : interface(std::move(of)), ipv6(context), ipv4(context), group(context) {}
    Interface interface;
    udp::socket ipv6;   ///< asks by IPv6 and hears the answers
    udp::socket ipv4;   ///< asks by broadcast, hears the answers, and asks by group
    udp::socket group;  ///< hears the answers to the group
  };

  void Choose(const std::vector<std::string>& named);
  void Open(const Interface& interface);
  void OpenIPv6(Link& link);
  void OpenIPv4(Link& link);
  void OpenGroup(Link& link);
  void EnlargeBuffer(udp::socket& socket);
  void Listen(Link& link, udp::socket& socket, Way way);
  void Drain(Link& link, udp::socket& socket, Way way);
  void DrainAll();
  Link* Find(const std::string& interface);
  Error SendTo(udp::socket& socket, const udp::endpoint& to, std::string_view datagram);

  asio::io_context context;
  std::deque<Link> links;  // whose addresses the handlers keep
  std::vector<Interface> used;
  std::vector<Unusable> failures, missing, unsent;
  bool isNamedMissing = false;
  std::string sendError;
  std::size_t received = 0;
  int receiveBuffer = ReceiveBufferWanted();
  std::deque<Datagram> arrived;
  std::array<char, 65536> buffer;
};

void Network::Sockets::Choose(const std::vector<std::string>& named) {
  const std::vector<Interface> all = ListInterfaces();
  if (named.empty()) {
    for (const Interface& one : all)
      if (one.isUp && one.canMulticast && !one.isLoopback && !one.isPort) Open(one);
    if (links.empty() && failures.empty()) failures.push_back({"", "no usable network interface is up"});
    return;
  }
  for (auto name = named.begin(); name != named.end(); ++name) {
    if (std::find(named.begin(), name, *name) != name) continue;
    const auto one =
        std::find_if(all.begin(), all.end(), [&name, index = InterfaceIndex(*name)](const Interface& other) {
          return other.name == *name || other.index == index;
        });
    if (one != all.end() && std::find(used.begin(), used.end(), *one) != used.end()) continue;
    const std::size_t before = links.size();
    if (one == all.end()) {
      failures.push_back({*name, "there is no such interface"});
    } else if (!one->isUp) {
      failures.push_back({*name, "it is down"});
    } else if (!one->canMulticast) {
      failures.push_back({*name, "it cannot multicast"});
    } else {
      Open(*one);
    }
    if (links.size() == before) isNamedMissing = true;
  }
}

void Network::Sockets::Open(const Interface& interface) {
  Link& link = links.emplace_back(context, interface);
  const std::size_t before = missing.size();
  const auto attempt = [&](const char* way, void (Sockets::*open)(Link&)) {
    try {
      (this->*open)(link);
    } catch (const boost::system::system_error& error) {
      missing.push_back(
          {interface.name, std::string("nothing is heard by ") + way + " (" + error.code().message() + ")"});
    }
  };
  if (interface.linkLocal.empty()) {
    missing.push_back({interface.name, "it has no IPv6 link-local address"});
  } else {
    attempt("IPv6", &Sockets::OpenIPv6);
  }
  if (interface.subnets.empty()) {
    missing.push_back({interface.name, "it has no IPv4 address"});
  } else {
    attempt("IPv4", &Sockets::OpenIPv4);
    if (link.ipv4.is_open()) attempt("the IPv4 group", &Sockets::OpenGroup);
  }
  if (link.ipv6.is_open() || link.ipv4.is_open()) {
    used.push_back(interface);
    return;
  }
  links.pop_back();
  std::string reason;
  for (auto at = missing.begin() + static_cast<std::ptrdiff_t>(before); at != missing.end(); ++at) {
    AppendItem(reason, at->reason, ", and ");
  }
  missing.resize(before);
  failures.push_back({interface.name, interface.hasLink ? reason : "it has no link (is the cable plugged in?)"});
}

/// Opens `socket` as `open` says; what fails leaves it closed.
template <typename Open>
void OpenWhole(udp::socket& socket, const Open& open) {
  udp::socket fresh(socket.get_executor());
  open(fresh);
  IgnoreRefusals(fresh.native_handle());
  fresh.non_blocking(true);
  socket = std::move(fresh);
}

void Network::Sockets::OpenIPv6(Link& link) {
  OpenWhole(link.ipv6, [&](udp::socket& socket) {
    socket.open(udp::v6());
    socket.set_option(asio::ip::v6_only(true));
    socket.bind(Endpoint(link.interface.linkLocal, link.interface.index, 0));
    socket.set_option(asio::ip::multicast::outbound_interface(link.interface.index));
    EnlargeBuffer(socket);
  });
  Listen(link, link.ipv6, Way::IPv6);
}

void Network::Sockets::OpenIPv4(Link& link) {
  OpenWhole(link.ipv4, [&](udp::socket& socket) {
    socket.open(udp::v4());
    socket.set_option(asio::socket_base::broadcast(true));
    ThrowIf(SendThrough(socket.native_handle(), link.interface));
    socket.bind(Endpoint(link.interface.subnets.front().address, 0));
    EnlargeBuffer(socket);
  });
  Listen(link, link.ipv4, Way::Broadcast);
}

void Network::Sockets::OpenGroup(Link& link) {
  OpenWhole(link.group, [&](udp::socket& socket) {
    socket.open(udp::v4());
    socket.set_option(asio::socket_base::reuse_address(true));
    ThrowIf(BindToGroup(socket.native_handle(), GroupIPv4, PortIPv4, link.interface));
    EnlargeBuffer(socket);
  });
  Listen(link, link.group, Way::IPv4);
}

void Network::Sockets::EnlargeBuffer(udp::socket& socket) {
  Error ignored;
  asio::socket_base::receive_buffer_size size(ReceiveBufferWanted());
  socket.set_option(size, ignored);
  socket.get_option(size, ignored);
  receiveBuffer = std::min(receiveBuffer, GrantedBuffer(size.value()));
}

void Network::Sockets::Listen(Link& link, udp::socket& socket, Way way) {
  socket.async_wait(udp::socket::wait_read, [this, &link, &socket, way](const Error& error) {
    if (error) return;
    Drain(link, socket, way);
    Listen(link, socket, way);
  });
}

void Network::Sockets::Drain(Link& link, udp::socket& socket, Way way) {
  constexpr int atOnce = 256;  // then the other sockets have their turn
  for (int i = 0; i < atOnce; ++i) {
    Error error;
    udp::endpoint from;
    const std::size_t length = socket.receive_from(asio::buffer(buffer), from, 0, error);
    if (error) return;
    ++received;
    arrived.push_back(
        {{link.interface.name, way, from.address().to_string()}, from.port(), std::string(buffer.data(), length)});
  }
}

/// Not by the context: where a thread of its own watches the sockets, as on Windows, it may not know yet what has come.
void Network::Sockets::DrainAll() {
  for (Link& link : links) {
    Drain(link, link.ipv6, Way::IPv6);
    Drain(link, link.ipv4, Way::Broadcast);
    Drain(link, link.group, Way::IPv4);
  }
}

Network::Sockets::Link* Network::Sockets::Find(const std::string& interface) {
  const auto link =
      std::find_if(links.begin(), links.end(), [&](const Link& one) { return one.interface.name == interface; });
  if (link == links.end()) sendError = interface + " is not in use";
  return link == links.end() ? nullptr : &*link;
}

Error Network::Sockets::SendTo(udp::socket& socket, const udp::endpoint& to, std::string_view datagram) {
  Error error = asio::error::bad_descriptor;
  if (socket.is_open()) socket.send_to(asio::buffer(datagram.data(), datagram.size()), to, 0, error);
  if (error) sendError = to.address().to_string() + ": " + error.message();
  return error;
}

Network::Network(const std::vector<std::string>& named) : sockets(std::make_unique<Sockets>()) {
  sockets->Choose(named);
}
Network::~Network() = default;

const std::vector<Interface>& Network::Used() const { return sockets->used; }
const std::vector<Unusable>& Network::Failures() const { return sockets->failures; }
std::vector<Unusable> Network::MissingWays() const {
  std::vector<Unusable> ways = sockets->missing;
  ways.insert(ways.end(), sockets->unsent.begin(), sockets->unsent.end());
  return ways;
}
bool Network::IsUsable() const { return !sockets->links.empty() && !sockets->isNamedMissing; }
int Network::ReceiveBuffer() const { return sockets->receiveBuffer; }

std::size_t Network::Received() const { return sockets->received; }
const std::string& Network::SendError() const { return sockets->sendError; }

bool Network::SendToAll(std::string_view datagram) {
  bool sent = false;
  sockets->unsent.clear();
  for (Sockets::Link& link : sockets->links) {
    const auto send = [&](const char* way, udp::socket& socket, const udp::endpoint& to) {
      if (!socket.is_open()) return;
      const Error error = sockets->SendTo(socket, to, datagram);
      sent = sent || !error;
      if (!error) return;
      sockets->unsent.push_back(
          {link.interface.name, std::string("nothing can be sent by ") + way + " (" + error.message() + ")"});
    };
    send("IPv6", link.ipv6, Endpoint(GroupIPv6, link.interface.index, PortIPv6));
    if (link.group.is_open()) send("the IPv4 group", link.ipv4, Endpoint(GroupIPv4, PortIPv4));
    send("broadcast", link.ipv4, Endpoint(0xffffffff, PortBroadcast));
  }
  return sent;
}

bool Network::Send(const Source& to, std::string_view datagram) {
  if (to.way == Way::IPv6) return SendToPort(to, PortIPv6, datagram);
  if (to.way == Way::Broadcast) return SendToPort(to, PortBroadcast, datagram);
  Sockets::Link* link = sockets->Find(to.interface);
  return link != nullptr && !sockets->SendTo(link->ipv4, Endpoint(GroupIPv4, PortIPv4), datagram);
}

bool Network::SendToPort(const Source& to, std::uint16_t port, std::string_view datagram) {
  Sockets::Link* link = sockets->Find(to.interface);
  Error error;
  const asio::ip::address address = asio::ip::make_address(to.address, error);
  if (link == nullptr || error) return false;
  return !sockets->SendTo(address.is_v6() ? link->ipv6 : link->ipv4, {address, port}, datagram);
}

std::optional<Datagram> Network::Receive(Time deadline) {
  // Short enough for Ctrl-C to seem to act at once.
  constexpr std::chrono::milliseconds step(100);
  while (sockets->arrived.empty() && !WasInterrupted()) {
    const Time now = Clock::now();
    if (now >= deadline) {
      sockets->DrainAll();
      break;
    }
    if (sockets->links.empty()) {
      std::this_thread::sleep_until(std::min(deadline, now + step));
    } else {
      sockets->context.run_one_until(std::min(deadline, now + step));
    }
  }
  if (sockets->arrived.empty() || WasInterrupted()) return std::nullopt;
  Datagram datagram = std::move(sockets->arrived.front());
  sockets->arrived.pop_front();
  return datagram;
}

std::optional<Datagram> Network::Await(Time deadline, const std::function<bool(const Datagram&)>& matches) {
  for (;;) {
    std::optional<Datagram> datagram = Receive(deadline);
    if (!datagram || matches(*datagram)) return datagram;
    if (Clock::now() >= deadline + Settling) return std::nullopt;
  }
}

Clock::duration SecondsToDuration(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

bool Collect(Network& network, const Collection& how, Devices& devices, const std::function<void()>& onProgress) {
  using std::chrono::milliseconds;
  constexpr std::array<milliseconds, 3> asks = {milliseconds(0), milliseconds(250), milliseconds(750)};
  constexpr milliseconds step(100);
  const Time start = Clock::now();
  Time end = start + SecondsToDuration(how.seconds);
  bool isEnough = how.expect <= 0;
  const auto take = [&](const std::optional<Datagram>& datagram) {
    const std::optional<Record> record = datagram ? ReadRecord(datagram->bytes) : std::nullopt;
    if (!record || !devices.Add({datagram->source, *record}) || isEnough || devices.Count() < how.expect) return;
    isEnough = true;
    end = std::min(end, Clock::now() + Settling);
  };
  bool sent = false;
  const auto* ask = asks.begin();
  for (Time now = start; now < end && !WasInterrupted(); now = Clock::now()) {
    if (ask != asks.end() && now >= start + *ask) {
      ++ask;
      if (network.SendToAll(IdentityRequest)) sent = true;
    }
    const Time due = ask == asks.end() ? end : std::min(end, start + *ask);
    take(network.Receive(std::min(due, now + step)));
    if (onProgress) onProgress();
  }
  // What has come in by now counts, however long it takes to read, but no flood keeps us here.
  const Time last = Clock::now() + Settling;
  while (Clock::now() < last) {
    const std::optional<Datagram> datagram = network.Receive(Time::min());
    if (!datagram) break;
    take(datagram);
  }
  return sent;
}

}  // namespace tarnddp

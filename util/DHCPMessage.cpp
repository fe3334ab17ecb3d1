#include "util/DHCPMessage.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace {

// Offsets of the fields.
constexpr std::size_t OP = 0;
constexpr std::size_t XID = 4;
constexpr std::size_t CIADDR = 12;
constexpr std::size_t YIADDR = 16;
constexpr std::size_t CHADDR = 28;
constexpr std::size_t SNAME = 44;
constexpr std::size_t FILE_NAME = 108;
constexpr std::size_t COOKIE = 236;
constexpr std::size_t OPTIONS = 240;
constexpr std::size_t OPTIONS_LENGTH = 548;

constexpr std::uint8_t BOOT_REPLY = 2;
constexpr std::uint8_t DHCP_DISCOVER = 1;
constexpr std::uint8_t DHCP_REQUEST = 3;

enum Option : std::uint8_t {
  OPTION_SUBNET_MASK = 1,
  OPTION_ROUTER = 3,
  OPTION_NAME_SERVER = 6,
  OPTION_HOST_NAME = 12,
  OPTION_BROADCAST = 28,
  OPTION_REQUESTED_ADDRESS = 50,
  OPTION_LEASE_TIME = 51,
  OPTION_MESSAGE_TYPE = 53,
  OPTION_SERVER = 54,
  OPTION_PARAMETER_LIST = 55,
  OPTION_CLIENT = 61,
  OPTION_END = 255,
};

// Low byte first on every machine: servers echo these four bytes unread, and a reply is matched byte for byte.
constexpr std::array<std::uint8_t, 4> TRANSACTION = {0x7c, 0xd9, 0x01, 0x00};

constexpr char HOST_NAME[] = "tarn-xt175-ts";  // its 13 characters are part of the layout

/// Writes bytes one behind the other; what is written has a fixed size that fits.
class Writer {
 public:
  Writer(DHCPBuffer& buffer, std::size_t at) : _buffer(buffer), _at(at) {}
  void Bytes(std::initializer_list<std::uint8_t> bytes) { Copy(bytes.begin(), bytes.size()); }
  void Address(in_addr address) { Copy(&address, sizeof(address)); }  // is in network order already
  void Copy(const void* bytes, std::size_t size) {
    std::memcpy(_buffer.data() + _at, bytes, size);
    _at += size;
  }
  void ParameterList() { Bytes({OPTION_PARAMETER_LIST, 11, 1, 15, 3, 6, 44, 46, 47, 31, 33, 121, 43}); }
  /// Ends the options and notes their length.
  void End() {
    Bytes({OPTION_END});
    const auto length = static_cast<std::uint8_t>(_at - COOKIE);
    Writer(_buffer, OPTIONS_LENGTH).Bytes({length, 0, 0, 0});
  }

 private:
  DHCPBuffer& _buffer;
  std::size_t _at;
};

/// The fields before the options, as far as they are ours.
void WriteFields(DHCPBuffer& buffer, const DHCPMac& mac) {
  Writer fields(buffer, OP);
  fields.Bytes({1, 1, static_cast<std::uint8_t>(mac.size()), 0});  // request, Ethernet, length of the MAC, no hops
  fields.Copy(TRANSACTION.data(), TRANSACTION.size());
  fields.Bytes({0, 0, 0x80, 0});  // no seconds; answers are to be broadcast
  std::fill(buffer.begin() + CIADDR, buffer.begin() + CHADDR, std::uint8_t{0});  // the four addresses
  Writer(buffer, CHADDR).Copy(mac.data(), mac.size());
  buffer[SNAME] = 0;
  buffer[FILE_NAME] = 0;
  Writer(buffer, COOKIE).Bytes({0x63, 0x82, 0x53, 0x63});
}

/// The byte at `at` of the whole exchange buffer (what an earlier, longer message left there included); past it zero,
/// so a length that lies leads nowhere.
std::uint8_t ByteAt(const DHCPBuffer& buffer, std::size_t at) { return at < buffer.size() ? buffer[at] : 0; }

in_addr AddressAt(const DHCPBuffer& buffer, std::size_t at) {
  const std::uint8_t bytes[] = {ByteAt(buffer, at), ByteAt(buffer, at + 1), ByteAt(buffer, at + 2),
                                ByteAt(buffer, at + 3)};
  in_addr address = {};
  std::memcpy(&address, bytes, sizeof(address));
  return address;
}

void ReadOption(std::uint8_t code, in_addr value, DHCPReply* reply) {
  switch (code) {
    case OPTION_SUBNET_MASK:
      reply->mask = value;
      break;
    case OPTION_ROUTER:
      reply->router = value;
      break;
    case OPTION_NAME_SERVER:
      reply->nameServer = value;
      break;
    case OPTION_BROADCAST:
      reply->broadcast = value;
      break;
    case OPTION_SERVER:
      reply->server = value;
      break;
    case OPTION_LEASE_TIME:
      reply->leaseSeconds = ntohl(value.s_addr);
      break;
    default:
      break;
  }
}

}  // namespace

DHCPBuffer ul_DHCPBuildDiscover(const DHCPMac& mac) {
  DHCPBuffer buffer = {};
  WriteFields(buffer, mac);
  Writer options(buffer, OPTIONS);
  options.Bytes({OPTION_MESSAGE_TYPE, 1, DHCP_DISCOVER});
  options.Bytes({OPTION_CLIENT, 7, 1});  // hardware type and address
  options.Copy(mac.data(), mac.size());
  options.Bytes({OPTION_HOST_NAME, sizeof(HOST_NAME) - 1});
  options.Copy(HOST_NAME, sizeof(HOST_NAME) - 1);
  options.ParameterList();
  options.End();
  return buffer;
}

DHCPBuffer ul_DHCPBuildRequest(const DHCPBuffer& offer, const DHCPMac& mac, in_addr server, in_addr address) {
  DHCPBuffer buffer = offer;
  WriteFields(buffer, mac);
  Writer options(buffer, OPTIONS);
  options.Bytes({OPTION_MESSAGE_TYPE, 1, DHCP_REQUEST});
  options.Bytes({OPTION_SERVER, sizeof(server)});
  options.Address(server);
  options.Bytes({OPTION_REQUESTED_ADDRESS, sizeof(address)});
  options.Address(address);
  options.ParameterList();
  options.End();
  return buffer;
}

bool ul_DHCPReadReply(const DHCPBuffer& buffer, std::size_t received, std::uint8_t messageType, DHCPReply* reply) {
  const std::array<std::uint8_t, 3> firstOption = {OPTION_MESSAGE_TYPE, 1, messageType};
  if (received < OPTIONS || buffer[OP] != BOOT_REPLY ||
      !std::equal(TRANSACTION.begin(), TRANSACTION.end(), buffer.begin() + XID) ||
      !std::equal(firstOption.begin(), firstOption.end(), buffer.begin() + OPTIONS)) {
    return false;
  }
  *reply = {};
  reply->address = AddressAt(buffer, YIADDR);
  // Up to four bytes past the reply, where the buffer is zero or still holds an earlier message.
  for (std::size_t at = OPTIONS; at < received + 4; at += std::size_t{2} + ByteAt(buffer, at + 1)) {
    const std::uint8_t code = ByteAt(buffer, at);
    if (code == OPTION_END) break;
    ReadOption(code, AddressAt(buffer, at + 2), reply);
  }
  return true;
}

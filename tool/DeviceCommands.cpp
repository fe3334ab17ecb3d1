#include <algorithm>
#include <string>
#include <thread>

#include "tool/Change.h"
#include "tool/Commands.h"
#include "tool/Exchange.h"
#include "tool/Output.h"
#include "tool/Render.h"
#include "tool/Scan.h"
#include "tool/Session.h"
#include "tool/System.h"
#include "tool/Text.h"

// trace, halt and send.

namespace tarnddp {
namespace {

using std::chrono::seconds;

/// The trace of one device, switched on and, by Stop(), off.
class Tracing {
 public:
  Tracing(Network& socketsToUse, Path pathToUse) : network(socketsToUse), path(std::move(pathToUse)) {}

  /// False if it could not be sent.
  bool Switch(bool on) {
    const std::string request = Request(path, "SYSTRACE!", {on ? "1" : "0"});
    // A filter means nothing to a device that was started anew meanwhile, until it is asked who it is.
    if (isHeard && !path.filter.empty()) network.SendToPort(path.to, PortIPv6, IdentityRequest);
    // Only what comes to this port may switch it, over IPv4, too.
    if (!network.SendToPort(path.to, PortIPv6, request)) return false;
    ++repliesDue;
    return true;
  }

  /// What has come from the device, if it is no reply.
  void Take(const Datagram& datagram) {
    isHeard = true;
    if (repliesDue > 0 && datagram.bytes == Acknowledgement) {
      --repliesDue;
      return;
    }
    // A slow device may still be answering what was asked before.
    if (!ReadRecord(datagram.bytes)) PrintLines(datagram.bytes);
  }

  bool IsFrom(const Datagram& datagram) const {
    return datagram.port == PortIPv6 && datagram.source.address == path.to.address;
  }
  bool IsHeard() const { return isHeard; }

  void Stop() {
    // Twice, as nothing is awaited any more.
    Switch(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Switch(false);
    if (isInLine) Print("\n");
  }

 private:
  /// A piece of a line stands until the next datagram brings the rest.
  void PrintLines(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      std::string_view line = text.substr(0, end);
      if (end < text.size() && !line.empty() && line.back() == '\r') line.remove_suffix(1);
      shown += Shown(line);
      isInLine = end == text.size();
      if (!isInLine) shown += '\n';
      text.remove_prefix(std::min(end + 1, text.size()));
    }
    Print(shown);
  }

  Network& network;
  Path path;
  int repliesDue = 0;
  bool isHeard = false;
  bool isInLine = false;
};

int Trace(Network& network, Tracing& tracing, const std::string& called) {
  constexpr seconds silence{2};
  const Time start = Clock::now();
  if (!tracing.Switch(true)) return TellNothingSent(network, called);
  ShowStatus("tracing " + called + "; Ctrl-C ends it");
  bool isSent = true;
  for (;;) {
    const auto isFrom = [&](const Datagram& datagram) { return tracing.IsFrom(datagram); };
    const auto datagram = network.Await(Clock::now() + silence, isFrom);
    if (WasInterrupted()) return StatusInterrupted;
    if (datagram) tracing.Take(*datagram);
    if (!IsOutputGood() || IsReaderGone()) return StatusNotDone;
    if (datagram) continue;
    if (!tracing.IsHeard() && Clock::now() >= start + AcknowledgementTime) {
      Say(called + " did not acknowledge in " + std::to_string(AcknowledgementTime.count()) + " s");
      return StatusNotDone;
    }
    // Whoever asks the device for anything takes the lines over, so they are asked back.
    const bool wasSent = isSent;
    isSent = tracing.Switch(true);
    if (wasSent && !isSent) TellNothingSent(network, called);  // perhaps for a while, as with a cable unplugged
  }
}

/// The way to the device alone; nothing, once it is said why, if there is none.
std::optional<Path> WayTo(const Session& session, const Device& device) {
  std::string why;
  std::optional<Path> path = PathTo(device, session.All(), why);
  if (!path) Say(Calling(device) + " cannot be addressed alone (" + why + "); nothing was sent");
  return path;
}

/// Whether the device still answers when it is no longer expected to.
bool StillAnswers(Session& session, const Device& device) {
  constexpr int enough = 2;  // silent rounds
  const Time end = Clock::now() + seconds(5);
  for (int silent = 0; silent < enough && Clock::now() < end;) {
    silent = AskAgain(session, device, silent == 0, end) ? 0 : silent + 1;  // one started anew knows no filter
    if (silent == enough) return false;
  }
  return true;
}

/// Whether an interface by which the device was heard still has a link.
bool HasLinkTo(const Session& session, const Device& device) {
  const std::vector<Interface> now = ListInterfaces(), ways = session.HeardOn(device);
  return std::any_of(now.begin(), now.end(), [&](const Interface& one) {
    return one.hasLink &&
           std::any_of(ways.begin(), ways.end(), [&](const Interface& way) { return way.name == one.name; });
  });
}

/// The exit status after a halt was sent.
int Halted(Session& session, const Device& device, Reply reply) {
  const std::string called = Calling(device);
  const bool isAcknowledged = reply == Reply::Ack;  // also by a device whose daemon has no right to halt it
  if (reply == Reply::Nack) {
    Print(called + ": refused\n");
    return StatusNotDone;
  }
  ShowStatus(called + ": asking again");
  if (StillAnswers(session, device)) {
    Print(called + (isAcknowledged ? ": acknowledged, but it still answers after 5 s\n"
                                   : ": not acknowledged, and it still answers\n"));
    return StatusNotDone;
  }
  if (!HasLinkTo(session, device)) {  // no failure: a device on a direct cable takes the link down with it
    Print(called + (isAcknowledged ? ": halted, as it seems: acknowledged" : ": perhaps halted: not acknowledged") +
          ", and this PC has no link to it any more\n");
    return StatusDone;
  }
  Print(called + (isAcknowledged ? ": halted\n"
                                 : ": halted, as it seems: it did not acknowledge, but does not answer any more\n"));
  return StatusDone;
}

}  // namespace

int Trace(const TraceOptions& options) {
  Session session(options);
  const auto device = session.Find(options.device);
  if (!device) return session.Status();
  const auto path = WayTo(session, *device);
  if (!path) return StatusNotDone;
  const KeepOnInterrupt keep;
  Tracing tracing(session.Sockets(), *path);
  const int status = Trace(session.Sockets(), tracing, Calling(*device));
  if (status != StatusNothingSent) tracing.Stop();
  return status;
}

int Halt(const HaltOptions& options) {
  if (!options.yes && !IsInputTerminal()) {
    Say("nobody here can be asked; nothing was sent (--yes does not ask)");
    return StatusUsage;
  }
  Session session(options);
  const auto device = session.Find(options.device);
  if (!device) return session.Status();
  const auto path = WayTo(session, *device);
  if (!path) return StatusNotDone;
  if (!options.yes && !Confirm("Halt " + Calling(*device) + "? Only its power switch starts it again.")) {
    Say("nothing was sent");
    return StatusNotDone;
  }
  const KeepOnInterrupt keep;
  try {
    ShowStatus(Calling(*device) + ": waiting for the acknowledgement");
    const auto reply = Exchange(session, *device, *path, Request(*path, "DEVICEREBOOT!", {}), false);
    if (reply) return Halted(session, *device, *reply);
    return TellNothingSent(session.Sockets(), Calling(*device));
  } catch (const Interrupted&) {
    Say("interrupted while " + Calling(*device) + " was told to halt");
    return StatusInterrupted;
  }
}

int Send(const SendOptions& options) {
  std::string request;
  if (const std::string refusal = ForwardedRequest(options.word, options.arguments, request); !refusal.empty()) {
    Say(refusal + "; nothing was sent");
    return StatusUsage;
  }
  Session session(options);
  const auto device = session.Find(options.device);
  if (!device) return session.Status();
  const std::string called = Calling(*device);
  const auto path = LinkLocalPath(*device, session.All());
  if (!path) {
    Say(called + " gave no link-local IPv6 answer of its own, and only over IPv6 a word is passed on as it is; " +
        "nothing was sent");
    return StatusNotDone;
  }
  if (!FactsOf(device->record).service) {
    Say(called + ": its service is away, so nobody would get the word; nothing was sent");
    return StatusNotDone;
  }
  if (!session.Sockets().Send(path->to, request)) return TellNothingSent(session.Sockets(), called);
  Print(called + ": passed on to its service, which does not answer this way\n");
  return StatusDone;
}

}  // namespace tarnddp

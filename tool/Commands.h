#pragma once

#include <optional>
#include <string>
#include <vector>

// The subcommands, one function each: the command line as read (tool/CommandLine.h) to an exit status (tool/Output.h).

namespace tarnddp {

struct CommonOptions {
  std::vector<std::string> interfaces;  ///< empty: all that can be used
  double seconds = 2;                   ///< how long answers are collected
};

struct ScanOptions : CommonOptions {
  int expect = 0;  ///< 0: any number
  bool watch = false;
  bool json = false;
  bool csv = false;
};

struct SetIPOptions : CommonOptions {
  std::string device, address;  ///< `address` is "ADDRESS/PREFIX" as typed
  std::optional<std::string> gateway, dns;
  bool force = false;
  bool dryRun = false;
  bool json = false;
};

struct DhcpOptions : CommonOptions {
  std::string device;
  bool on = false;
  bool dryRun = false;
  bool json = false;
};

struct ApplyOptions : CommonOptions {
  std::string plan;  ///< the file's name
  bool yes = false;
  bool dryRun = false;
  bool json = false;
};

struct TraceOptions : CommonOptions {
  std::string device;
};

struct HaltOptions : CommonOptions {
  std::string device;
  bool yes = false;
};

struct SendOptions : CommonOptions {
  std::string device, word;
  std::vector<std::string> arguments;
};

int Scan(const ScanOptions& options);
int SetIP(const SetIPOptions& options);
int Dhcp(const DhcpOptions& options);
int Apply(const ApplyOptions& options);
int Trace(const TraceOptions& options);
int Halt(const HaltOptions& options);
int Send(const SendOptions& options);

}  // namespace tarnddp

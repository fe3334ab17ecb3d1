#include "tool/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <map>
#include <type_traits>
#include <utility>

#include "tool/Output.h"

namespace tarnddp {
namespace {

constexpr const char* Overview =
    R"(tarnddp finds measurement devices on the local network and configures one. It needs neither root nor a service.

Usage: tarnddp [scan] [OPTIONS]                    find the devices
       tarnddp set-ip DEVICE ADDRESS/PREFIX        give a device a fixed address
       tarnddp dhcp DEVICE on|off                  switch its DHCP on or off
       tarnddp apply PLAN.csv                      set many devices as a plan says
       tarnddp trace DEVICE                        show its trace output
       tarnddp halt DEVICE                         shut it down
       tarnddp send DEVICE WORD [ARGUMENT...]      pass a command on to its service
       tarnddp COMMAND --help                      the options of each
       tarnddp --help | --version

DEVICE is a MAC address in any spelling, the last four or more digits of one (as a label shows them), a serial number,
a name, or the address that the device answers from.

Examples:
  tarnddp                                          a table of all devices
  tarnddp scan --expect 10 --json                  for a script; ends as soon as ten devices were heard
  tarnddp scan --watch                             what comes and goes
  tarnddp set-ip ff05 192.168.1.20/24 --gateway 192.168.1.1
  tarnddp scan --csv >plan.csv
  tarnddp apply plan.csv

Exit status: 0 done; 1 not, or not wholly, as asked; 2 wrong usage, address or plan; 3 no interface to send by; 130 interrupted.
)";

/// A check for a number from `least` to `most`. A whole one is of decimal digits: CLI11 takes "+010" for eight.
template <typename Number>
std::function<std::string(const std::string&)> From(Number least, Number most) {
  return [least, most](const std::string& text) {
    const bool isPlain =
        !std::is_integral_v<Number> || (text[0] != '0' && text.find_first_not_of("0123456789") == std::string::npos);
    Number number = 0;
    const bool fits = isPlain && CLI::detail::lexical_cast(text, number) && number >= least && number <= most;
    if (fits) return std::string();
    return "is " + text + ", not a number from " + CLI::detail::to_string(least) + " to " +
           CLI::detail::to_string(most) + (isPlain ? "" : " (digits alone, no leading zeros)");
  };
}

void AddCommon(CLI::App& app, CommonOptions& options) {
  app.add_option("--interface", options.interfaces, "Ask only on this interface (may be given again)")
      ->type_name("NAME")
      ->check([](const std::string& name) { return name.empty() ? "lacks its value" : std::string(); })
      ->allow_extra_args(false);
  app.add_option("--time", options.seconds, "How long answers are collected (2 s)")
      ->type_name("SECONDS")
      ->check(From(0.1, 3600.0));
}

void AddDevice(CLI::App& app, std::string& device) {
  app.add_option("DEVICE", device, "MAC address or the end of one, serial number, name, or answering address")
      ->required()
      ->type_name("");
}

template <typename Options>
void AddDryRun(CLI::App& app, Options& options) {
  app.add_flag("--dry-run", options.dryRun, "Show what would be sent and send no change");
  app.add_flag("--json", options.json, "Print the result as JSON");
}

void Declare(CLI::App& app, ScanOptions& options) {
  app.description("Finds the devices and prints them as a table.");
  app.add_option("--expect", options.expect,
                 "End as soon as N devices were heard; fewer is a failure (not with --watch)")
      ->type_name("N")
      ->check(From(1, 1000000));
  CLI::Option* watch =
      app.add_flag("--watch", options.watch, "Ask every 2 s until Ctrl-C; tell what comes, changes and goes");
  CLI::Option* json = app.add_flag("--json", options.json, "Print one JSON object a line");
  app.add_flag("--csv", options.csv, "Print a plan for \"tarnddp apply\"")->excludes(watch)->excludes(json);
}

void Declare(CLI::App& app, SetIPOptions& options) {
  app.description("Gives a device a fixed address.");
  AddDevice(app, options.device);
  app.add_option("ADDRESS/PREFIX", options.address, "For instance 192.168.1.20/24")->required()->type_name("");
  app.add_option("--gateway", options.gateway, "Default gateway (the present one, if it is in the new network)")
      ->type_name("ADDRESS");
  app.add_option("--dns", options.dns, "Name server (none)")->type_name("ADDRESS");
  app.add_flag("--force", options.force, "Do what is only unwise, or in force already");
  AddDryRun(app, options);
}

void Declare(CLI::App& app, DhcpOptions& options) {
  app.description("Switches the DHCP of a device on or off.");
  AddDevice(app, options.device);
  app.add_option_function<std::string>(
         "STATE", [&options](const std::string& state) { options.on = state == "on"; }, "on or off")
      ->required()
      ->type_name("")
      ->check(CLI::IsMember({"on", "off"}));
  AddDryRun(app, options);
}

void Declare(CLI::App& app, ApplyOptions& options) {
  app.description("Sets devices as a plan says: a table with the columns of \"tarnddp scan --csv\".");
  app.add_option("PLAN.csv", options.plan, "The file")->required()->type_name("");
  app.add_flag("--yes", options.yes, "Do not ask");
  AddDryRun(app, options);
}

void Declare(CLI::App& app, TraceOptions& options) {
  app.description("Shows the trace output of a device until Ctrl-C.");
  AddDevice(app, options.device);
}

void Declare(CLI::App& app, HaltOptions& options) {
  app.description("Shuts a device down. Only its power switch starts it again.");
  AddDevice(app, options.device);
  app.add_flag("--yes", options.yes, "Do not ask");
}

void Declare(CLI::App& app, SendOptions& options) {
  app.description("Passes a command on to the service of a device. There is no answer to it.");
  AddDevice(app, options.device);
  app.add_option("WORD", options.word, "The command word")->required()->type_name("");
  app.add_option("ARGUMENT", options.arguments, "Its arguments (behind -- if one begins with -)")->type_name("");
}

// CLI11 takes a word in brackets for a list and unpacks it. With this in front, no word of the user's is one.
constexpr char Plain = '\x01';

void Escape(std::string& word) {
  if (!word.empty() && (word.front() == '[' || word.front() == Plain)) word.insert(word.begin(), Plain);
}
void Unescape(std::string& word) {
  if (!word.empty() && word.front() == Plain) word.erase(word.begin());
}

template <typename Options>
void Restore(Options&) {}
void Restore(SendOptions& options) {
  for (std::string& name : options.interfaces) Unescape(name);
  Unescape(options.device);
  Unescape(options.word);
  for (std::string& argument : options.arguments) Unescape(argument);
}

/// The first "--option=" before a "--", or nothing: CLI11 would take the next word for its value, whatever that is.
std::string WithoutValue(const std::vector<std::string>& words) {
  const auto end = std::find(words.begin(), words.end(), "--");
  const auto found = std::find_if(words.begin(), end, [](const std::string& word) {
    return word.compare(0, 2, "--") == 0 && word.find('=') == word.size() - 1;
  });
  return found == end ? "" : *found;
}

template <typename Options>
Command Read(const std::string& name, std::vector<std::string> words) {
  Options options;
  CLI::App app("", "tarnddp " + name);
  app.allow_windows_style_options(false);  // "/x" is an argument everywhere
  Declare(app, options);
  AddCommon(app, options);
  const std::string seeHelp = " (see tarnddp " + name + " --help)";
  if (const std::string bare = WithoutValue(words); !bare.empty()) {
    return Ending{bare + " lacks its value" + seeHelp, StatusUsage};
  }
  if constexpr (std::is_same_v<Options, SendOptions>) std::for_each(words.begin(), words.end(), Escape);
  std::reverse(words.begin(), words.end());  // as CLI11 takes a list of words
  try {
    app.parse(words);
  } catch (const CLI::CallForHelp&) {
    return Ending{app.help(), StatusDone};
  } catch (const CLI::Error& error) {
    return Ending{error.what() + seeHelp, StatusUsage};
  }
  Restore(options);
  return options;
}

}  // namespace

Command ReadCommandLine(std::vector<std::string> words) {
  static const std::map<std::string, std::function<Command(const std::string&, std::vector<std::string>)>> readers = {
      {"scan", Read<ScanOptions>},   {"set-ip", Read<SetIPOptions>}, {"dhcp", Read<DhcpOptions>},
      {"apply", Read<ApplyOptions>}, {"trace", Read<TraceOptions>},  {"halt", Read<HaltOptions>},
      {"send", Read<SendOptions>}};
  if (!words.empty() && (words[0] == "--help" || words[0] == "-h")) return Ending{Overview, StatusDone};
  if (!words.empty() && words[0] == "--version") return Ending{"tarnddp " TARNDDP_VERSION "\n", StatusDone};
  if (words.empty() || (!words[0].empty() && words[0][0] == '-')) words.insert(words.begin(), "scan");
  const auto reader = readers.find(words[0]);
  if (reader == readers.end()) {
    return Ending{"there is no command \"" + words[0] + "\" (see tarnddp --help)", StatusUsage};
  }
  words.erase(words.begin());
  return reader->second(reader->first, std::move(words));
}

}  // namespace tarnddp

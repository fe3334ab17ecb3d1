#pragma once

#include <cstdint>

// The process-wide settings. The command line sets them once, before the loop starts; nothing changes them later.

/// Host of the device service, a dotted quad. "-ip".
extern char IPAddress[128];
/// The interface of the multicast route and of the fallback network configuration. "-if".
extern char InterfaceName[128];
/// TCP port of the device service. "-port".
extern std::int32_t port;
/// 1: detach from the terminal; 0 after "-nodaemon".
extern std::int32_t Daemon;
/// 1 if the path of the program contains "/ServiceSystem". Recorded only.
extern std::int32_t ServiceSystem;

/// Reads the command line into the settings above; what is not understood is ignored without a word.
///
/// Every argument, the program path included, is looked at as an option word, also the one that an option before it
/// took as its value. "-ip" and "-if" ignore a value of 128 characters or more; "-port" reads the low 32 bits of a
/// decimal number, and 0 to 999 (a text that is no number counts as 0) become 1400, while a negative one stays.
void ReadOptions(int argc, const char* const* argv);

/// What to print instead of starting, if the only argument is "--help" or "--version": people try them anywhere. Else
/// null.
const char* AnswerInsteadOfServing(int argc, const char* const* argv);

#pragma once

// What the process sets before it serves. Main thread only, and before there is another.

/// What a supervisor tells by the environment, standard streams, signals, the memory's return to the system, the words
/// at an abort. Needs no options.
void Startup_Prepare();

/// Routes IPv4 multicast through `interface` by the command `route`, whose success is not looked at.
void Startup_AddMulticastRoute(const char* interface);

/// Goes on in a child without a terminal: a session of its own, umask 0, folder /, standard streams at /dev/null. The
/// parent ends with status 0; any failure ends the process with 1.
void Startup_Daemonize();

#pragma once

#include <string>

#include "ddp/DeviceService.h"
#include "util/_Time.h"

/// Identification requests are ignored until the monotonic clock is past this moment.
extern AbsTime_US DisableIdentEndTime_US;

/// Runs one request and returns the reply; empty if nothing is to be sent. `datagram` may hold any bytes.
/// `directlyAddressed` tells whether it came through the IPv6 endpoint, which the privileged commands need: trace
/// switching, shell commands, and every word that is not known here, which goes to the device service as it is.
/// What memory runs out for is given up: a change of settings with NACK, anything else without a reply.
/// Throws boost::bad_lexical_cast when a directly addressed "SYSTRACE!" has an argument that is not on or off.
std::string TarnDDPCommand_Execute(const std::string& datagram, bool directlyAddressed);

#pragma once

#include <string>

#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"

// The connection to the device service, which owns the device's settings, and the rules of every call to it. Main
// thread only.

extern TarnXmlRpc::XmlRpcClientTransportHTTP XmlRpcTransport;
extern TarnXmlRpc::XmlRpcClient XmlRpcClient;

/// The interface that the device is found and configured on while the service is away.
extern std::string sInterfaceName;

/// Remembers the interface and connects to the service at `host` (a dotted quad) and `port`. Blocks for at most 1 s.
/// The result is for the message only: a connection that was made at the second attempt is told as false. What counts
/// afterwards is IsConnected().
bool TarnDDPCommand_Init(const std::string& host, int port, const std::string& interfaceName);

/// Whether the connection was made and not given up since; the peer is not asked.
bool IsConnected();

/// Gives the connection up. True.
bool TarnDDPCommand_Final();

/// What a call without an answer in time means for the connection.
enum class AfterTimeout { Disconnect, Keep };

/// Calls `method` over the open connection; `results` then holds what the service sent, or is invalid. True unless the
/// call failed, which is a status of -9999 to -1, an exception, or an answer to another call: a positive fault code is
/// a success with other members than expected. Never throws. Blocks for 0.5 s per read, as the transport is set.
///
/// Disconnects, so that the loop connects anew, when the connection is out of step: after an exception, the status
/// -3405, -3560 (no answer in time) as `afterTimeout` says, and an answer that came too late for its own call. While
/// the connection owes an answer, that is one whose "MethodID" does not name this method.
bool CallDeviceService(const char* method, const TarnXmlRpc::XmlRpcValue& params, TarnXmlRpc::XmlRpcValue& results,
                       AfterTimeout afterTimeout = AfterTimeout::Disconnect);

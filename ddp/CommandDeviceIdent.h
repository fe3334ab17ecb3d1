#pragma once

#include <string>

/// The identity record: one line of key:value pairs, TAB between them, CR LF at the end. Made of what the device
/// service tells, or, where a call fails, wholly of what the interface shows. Its MAC text becomes Server's own. Never
/// empty.
std::string Command_DeviceIdent();

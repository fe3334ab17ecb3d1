#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The fields of a request: what stands between any two of the separators TAB, CR and LF, empty fields included, and
/// what follows the last separator. The first is the command word. Pure: any bytes, never an empty list.
std::vector<std::string> TarnDDPCommand_SplitFields(std::string_view datagram);

/// Whether the field after the command word names a device rather than being an argument: twelve hexadecimal digits,
/// plain or in six pairs joined by '-' or ':'. Pure: any bytes. See the comment in the .cpp for the odd texts that
/// pass.
bool TarnDDPCommand_IsMacAddress(std::string_view field);

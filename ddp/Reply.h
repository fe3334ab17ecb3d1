#pragma once

// What every command but the identification answers.

inline constexpr char REPLY_ACK[] = "ACK\n";
inline constexpr char REPLY_NACK[] = "NACK\n";

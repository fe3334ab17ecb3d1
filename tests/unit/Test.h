#pragma once

// What nearly every unit test needs.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

/// Any number below that one, the same ones in every run.
inline std::size_t Random(std::size_t below) {
  static std::mt19937_64 generator(20261125);
  return static_cast<std::size_t>(generator() % below);
}

inline int CountDescriptors() {
  using Entries = std::filesystem::directory_iterator;
  return static_cast<int>(std::distance(Entries("/proc/self/fd"), Entries()));
}

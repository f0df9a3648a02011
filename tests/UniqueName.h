// Names of shared memory that no other run of the tests has: in a container, the next run may well
// get the same process numbers.
#pragma once

#include <unistd.h>

#include <random>
#include <string>
#include <string_view>

inline std::string uniqueName(std::string_view kind) {
  static const std::string run =
      "-" + std::to_string(::getpid()) + "-" + std::to_string(std::random_device{}());
  return std::string{kind} + run;
}

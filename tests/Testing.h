// What nearly every test uses, compiled once for each test program.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/Sanitizers.h"
#include "tests/UniqueName.h"

namespace TestSupport {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

using Texts = std::vector<std::string>;

// A number that the environment may give.
inline unsigned long setting(const char* name, unsigned long otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : std::strtoul(value, nullptr, 10);
}

// What the exception says that a call throws; empty for none.
template <class Exception, class Call>
std::string messageOf(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    return error.what();
  }
  return {};
}

}  // namespace TestSupport

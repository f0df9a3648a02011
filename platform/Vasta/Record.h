// What a record must be to stand in a shared table, and how the untyped core sees it.
//
// Thread and process rule: compile-time descriptions; the layout of a record type must be the same
// in every process that attaches, which the table's header checks.
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "platform/Korm/Hash.h"

namespace Vasta {

// A fixed-size value with its key inside it. It is copied, compared and summed as bytes, so it has
// neither pointers to itself nor padding; it lies on 8-byte boundaries, so it asks for no more. A
// `static constexpr std::string_view vastaName` tells apart record types of equal shape.
//
// A record with a long array of which it mostly uses the front may say by `usedSize()` how many of
// its bytes count, from the first one on, the key among them. The others are neither stored nor
// summed: a copy has zeros there, and one looked at in place has anything.
template <class R>
concept Record = std::is_trivially_copyable_v<R> && std::has_unique_object_representations_v<R> &&
                 std::has_unique_object_representations_v<typename R::Key> &&(alignof(R) <= 8) &&
                 requires(const R& record) {
  { record.key() } -> std::same_as<const typename R::Key&>;
  { Korm::Hash<typename R::Key>{}(record.key()) } -> std::same_as<std::uint32_t>;
};

// A record type as the untyped core sees it.
struct RecordLayout {
  std::uint32_t recordSize = 0;  // bytes
  std::uint32_t keyOffset = 0;   // bytes from the start of the record
  std::uint32_t keySize = 0;     // bytes
  std::string_view typeName;     // empty where the type gives none
  std::uint32_t (*hashOfKey)(const void* key) = nullptr;
  std::size_t (*usedSize)(const void* record) = nullptr;  // null: the whole record
};

template <Record R>
[[nodiscard]] std::uint32_t hashOfKey(const typename R::Key& key) noexcept {
  return Korm::Hash<typename R::Key>{}(key);
}

template <Record R>
[[nodiscard]] RecordLayout recordLayout() {
  using Key = typename R::Key;
  const auto probe = std::bit_cast<R>(std::array<std::byte, sizeof(R)>{});
  const auto offset =
      reinterpret_cast<const std::byte*>(&probe.key()) - reinterpret_cast<const std::byte*>(&probe);
  RecordLayout layout{
      .recordSize = sizeof(R),
      .keyOffset = static_cast<std::uint32_t>(offset),
      .keySize = sizeof(Key),
      .typeName = {},
      .hashOfKey = [](const void* key) { return hashOfKey<R>(*static_cast<const Key*>(key)); },
      .usedSize = nullptr};
  if constexpr (requires { probe.usedSize(); }) {
    layout.usedSize = [](const void* record) -> std::size_t {
      return static_cast<const R*>(record)->usedSize();
    };
  }
  if constexpr (requires { std::string_view{R::vastaName}; }) {
    layout.typeName = R::vastaName;
  }
  return layout;
}

// A place in a walk over the rows of a table: the first row not yet visited. It stays good whatever
// happens to the table between two steps, because rows never move.
struct Hint {
  std::uint32_t row = 0;
};

}  // namespace Vasta

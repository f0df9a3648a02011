// What a record type must fulfil to be stored in a shared table, and its description for the
// untyped core. The layout must be the same in every process that attaches; the table's header
// checks that.
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

// A fixed-size value that contains its key. It is copied, compared and checksummed as bytes, so it
// has neither pointers nor padding. It is stored on 8-byte boundaries, so its alignment is at
// most 8. A `static constexpr std::string_view vastaName` distinguishes record types of equal
// shape.
//
// A record that ends in a long, mostly unused array may have a function `usedSize()`, which says
// how many of its first bytes are in use, the key included. The others are neither stored nor
// summed: in a copy they are zero, and in a record that is read in place they are undefined.
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

// A position in a walk over the rows of a table: the first row not yet visited. It stays valid
// whatever happens to the table between two steps, because rows never move.
struct Hint {
  std::uint32_t row = 0;
};

}  // namespace Vasta

// The writing side of a table of records R. TableWriter.h has the contract and the rules for
// threads and processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Record.h"
#include "platform/Vasta/TableWriter.h"

namespace Vasta {

template <Record R>
class Table {
 public:
  using Key = typename R::Key;
  using CorruptionHandler = TableWriter::CorruptionHandler;

  // Creates the table or takes it over.
  // Throws: AttachError or std::system_error.
  explicit Table(TableOptions options) : writer_{recordLayout<R>(), std::move(options)} {}

  // Requires: a hash that is passed to a function below is hashOf(key).
  [[nodiscard]] static std::uint32_t hashOf(const Key& key) noexcept { return hashOfKey<R>(key); }

  // The committed record in place, or null. It stays readable, and unchanged until the next change
  // of its row.
  // Throws: Corruption.
  [[nodiscard]] const R* find(const Key& key) const { return find(key, hashOf(key)); }
  [[nodiscard]] const R* find(const Key& key, std::uint32_t hash) const {
    return asRecord(writer_.find(&key, hash));
  }

  // Prefetches the rows of the keys with these hashes, for a caller that is about to look them up
  // or overwrite them.
  void prefetch(std::span<const std::uint32_t> hashes) const noexcept { writer_.prefetch(hashes); }

  // Inserts or overwrites.
  // Throws: std::system_error when memory runs out; nothing has changed then.
  void is(const R& record) { is(record, hashOf(record.key())); }
  void is(const R& record, std::uint32_t hash) { writer_.is(bytesOf(record), hash); }

  // Removes the record and returns it; nothing when there is none.
  // Throws: Corruption; nothing has changed then.
  std::optional<R> del(const Key& key) {
    Storage removed;
    return writer_.del(&key, hashOf(key), removed.bytes) ? std::optional<R>{removed.record()}
                                                         : std::nullopt;
  }
  // Removes the record, into `removed` unless that is null; false when there is none.
  // Throws: Corruption when `removed` is wanted; with null a corrupt record goes like any other.
  bool del(const Key& key, R* removed) { return del(key, hashOf(key), removed); }
  bool del(const Key& key, std::uint32_t hash, R* removed) {
    return writer_.del(&key, hash, reinterpret_cast<std::byte*>(removed));
  }
  // Removes whatever is in the row. For corrupt records: see Corruption::row().
  bool discard(std::uint32_t row) { return writer_.discard(row); }
  void delAll() { writer_.delAll(); }

  // The writer's private copy of the record, to be changed and committed; null when there is no
  // such record. The key must not be changed. Valid until the next edit(). Throws: Corruption.
  [[nodiscard]] R* edit(const Key& key) {
    return reinterpret_cast<R*>(writer_.edit(&key, hashOf(key)));
  }
  // False, with nothing changed, when the record was removed since edit().
  bool commit(const R* staging) {
    return writer_.commit(reinterpret_cast<const std::byte*>(staging));
  }

  // The next record of a walk, null at the end; see TableWriter::next().
  [[nodiscard]] const R* next(Hint& hint) const { return asRecord(writer_.next(hint)); }

  [[nodiscard]] std::size_t size() const noexcept { return writer_.size(); }
  [[nodiscard]] std::uint64_t writerGeneration() const noexcept {
    return writer_.writerGeneration();
  }
  [[nodiscard]] std::uint64_t changeSequence() const noexcept { return writer_.changeSequence(); }
  [[nodiscard]] const std::string& name() const noexcept { return writer_.name(); }
  [[nodiscard]] std::shared_ptr<SegmentSource> segments() const noexcept {
    return writer_.segments();
  }

  // Null for none. Requires: the listener outlives the table or is replaced first.
  void listenerIs(TableWriter::Listener* listener) noexcept { writer_.listenerIs(listener); }

  void quiesce() { writer_.quiesce(); }
  [[nodiscard]] bool isQuiesced() const noexcept { return writer_.isQuiesced(); }
  void mountStateIs(MountState state) { writer_.mountStateIs(state); }
  [[nodiscard]] MountState mountState() const noexcept { return writer_.mountState(); }

  void corruptionHandlerIs(CorruptionHandler handler) {
    writer_.corruptionHandlerIs(std::move(handler));
  }
  void reportCorruption(const std::string& message) { writer_.reportCorruption(message); }
  [[nodiscard]] std::uint64_t corruptionCount() const noexcept { return writer_.corruptionCount(); }
  [[nodiscard]] const std::string& lastCorruption() const noexcept {
    return writer_.lastCorruption();
  }

  // The first violated invariant in words.
  [[nodiscard]] std::optional<std::string> verify() const { return writer_.verify(); }

 private:
  // Room for a record that need not have a default constructor.
  struct Storage {
    alignas(R) std::byte bytes[sizeof(R)];
    [[nodiscard]] const R& record() const noexcept { return *reinterpret_cast<const R*>(bytes); }
  };

  [[nodiscard]] static const R* asRecord(const std::byte* bytes) noexcept {
    return reinterpret_cast<const R*>(bytes);
  }
  [[nodiscard]] static const std::byte* bytesOf(const R& record) noexcept {
    return reinterpret_cast<const std::byte*>(&record);
  }

  TableWriter writer_;
};

}  // namespace Vasta

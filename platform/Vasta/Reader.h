// The reading side of a table of records R. TableReader.h has the contract and the rules for
// threads and processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Record.h"
#include "platform/Vasta/Table.h"
#include "platform/Vasta/TableReader.h"

namespace Vasta {

template <Record R>
class Reader {
 public:
  using Key = typename R::Key;

  // Attaches to a named table.
  // Throws: AttachError.
  explicit Reader(std::string shmName) : reader_{std::move(shmName), recordLayout<R>()} {}
  // Attaches to a table in this process, named or not, which it may outlive.
  explicit Reader(const Table<R>& table) : reader_{table.segments(), recordLayout<R>()} {}

  // A copy of the committed record.
  // Throws: Corruption.
  [[nodiscard]] std::optional<R> find(const Key& key) {
    Storage storage;
    return reader_.find(&key, hashOfKey<R>(key), storage.bytes) ? std::optional<R>{storage.record()}
                                                                : std::nullopt;
  }
  // Copies the record to `out`; false, with `out` untouched, when there is none.
  // Throws: Corruption.
  [[nodiscard]] bool find(const Key& key, R& out) { return find(key, hashOfKey<R>(key), out); }
  [[nodiscard]] bool find(const Key& key, std::uint32_t hash, R& out) {
    return reader_.find(&key, hash, reinterpret_cast<std::byte*>(&out));
  }

  // The next record of a walk; see TableReader::next().
  [[nodiscard]] bool next(Hint& hint, R& out) {
    return reader_.next(hint, reinterpret_cast<std::byte*>(&out));
  }

  // Calls `visit(const R&)` for every record.
  // Throws: Corruption, and whatever `visit` throws.
  template <class Visit>
  void forEach(Visit&& visit) {
    Storage storage;
    for (Hint hint; reader_.next(hint, storage.bytes);) {
      visit(storage.record());
    }
  }

  // Calls `visit(const RowChange&, const R&)` for what has changed; see TableReader::follow().
  template <class Visit>
  FollowResult follow(FollowCursor& cursor, Visit&& visit) {
    class Adapter : public TableReader::Follower {
     public:
      explicit Adapter(Visit& visitor) : visit_{visitor} {}
      void rowChanged(const RowChange& change) override {
        Storage storage;
        std::memcpy(storage.bytes, change.record.data(), sizeof(R));
        visit_(change, storage.record());
      }

     private:
      Visit& visit_;
    };
    Adapter adapter{visit};
    return reader_.follow(cursor, adapter);
  }

  [[nodiscard]] std::size_t size() const { return reader_.size(); }
  [[nodiscard]] std::uint64_t writerGeneration() const { return reader_.writerGeneration(); }
  [[nodiscard]] std::uint64_t changeSequence() const { return reader_.changeSequence(); }
  [[nodiscard]] bool isRemoved() const noexcept { return reader_.isRemoved(); }

 private:
  // Room for a record that need not have a default constructor.
  struct Storage {
    alignas(R) std::byte bytes[sizeof(R)];
    [[nodiscard]] const R& record() const noexcept { return *reinterpret_cast<const R*>(bytes); }
  };

  TableReader reader_;
};

}  // namespace Vasta

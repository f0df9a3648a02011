#include "platform/Vasta/Layout.h"

#include <bit>
#include <string_view>
#include <vector>

#include "platform/Vasta/Errors.h"

namespace Vasta {
namespace {

constexpr std::uint32_t cacheLineWords = 8;

constexpr std::uint32_t wholeCacheLines(std::uint32_t words) {
  return (words + cacheLineWords - 1) / cacheLineWords * cacheLineWords;
}

// FNV-1a, and not the framework's hash, because that hash is one of the things to be compared.
class Fingerprint {
 public:
  void add(std::string_view text) {
    for (const char c : text) {
      value_ = (value_ ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    }
  }
  void add(std::uint64_t number) {
    for (unsigned shift = 0; shift < 64; shift += 8) {
      value_ = (value_ ^ ((number >> shift) & 0xFFU)) * 0x100000001B3U;
    }
  }
  [[nodiscard]] std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0xCBF29CE484222325U;
};

std::string shapeOf(std::uint64_t recordSize, std::uint64_t keyOffset, std::uint64_t keySize) {
  return "records of " + std::to_string(recordSize) + " bytes with " + std::to_string(keySize) +
         "-byte keys at " + std::to_string(keyOffset);
}

}  // namespace

RowGeometry::RowGeometry(std::uint32_t recordBytes, std::uint32_t keyStart,
                         std::uint32_t keyBytes) noexcept
    : recordSize{recordBytes},
      keyOffset{keyStart},
      keySize{keyBytes},
      recordWords{static_cast<std::uint32_t>((recordBytes + wordSize - 1) / wordSize)},
      cellWords{recordWords + 2},
      firstRow{wholeCacheLines(cellWords)},
      rowWords{wholeCacheLines(1 + cellWords)} {}

std::uint64_t layoutHash(const RecordLayout& layout) {
  const RowGeometry geometry{layout.recordSize, layout.keyOffset, layout.keySize};
  Fingerprint fingerprint;
  fingerprint.add(formatVersion);
  fingerprint.add(std::uint64_t{std::endian::native == std::endian::little});
  fingerprint.add(layout.recordSize);
  fingerprint.add(layout.keyOffset);
  fingerprint.add(layout.keySize);
  fingerprint.add(geometry.cellWords);
  fingerprint.add(geometry.rowWords);
  fingerprint.add(layout.typeName);
  fingerprint.add(std::uint64_t{layout.usedSize != nullptr});
  // Two programs that hash keys differently would not find each other's records.
  const std::vector<std::uint64_t> zeroKey(layout.keySize / wordSize + 1);
  fingerprint.add(layout.hashOfKey(zeroKey.data()));
  return fingerprint.value();
}

void checkHeader(const std::uint64_t* header, std::size_t headerSize, const RecordLayout& expected,
                 const std::string& table) {
  if (headerSize < headerBytes || loadWord(header[Header::magic_]) == 0) {
    throw AttachError{AttachFailure::notReady, table, "its writer has not finished to create it"};
  }
  if (loadWord(header[Header::magic_]) != tableMagic) {
    throw AttachError{AttachFailure::foreign, table, "its segment is not a table"};
  }
  if (const std::uint64_t version = loadWord(header[Header::formatVersion_]);
      version != formatVersion) {
    throw AttachError{AttachFailure::version, table,
                      "it has format version " + std::to_string(version) + ", not " +
                          std::to_string(formatVersion)};
  }
  const std::uint64_t recordSize = loadWord(header[Header::recordSize_]);
  const std::uint64_t keyOffset = loadWord(header[Header::keyOffset_]);
  const std::uint64_t keySize = loadWord(header[Header::keySize_]);
  if (recordSize != expected.recordSize || keyOffset != expected.keyOffset ||
      keySize != expected.keySize ||
      loadWord(header[Header::layoutHash_]) != layoutHash(expected)) {
    throw AttachError{AttachFailure::layout, table,
                      "it holds " + shapeOf(recordSize, keyOffset, keySize) +
                          ", which does not match the '" + std::string{expected.typeName} + "' " +
                          shapeOf(expected.recordSize, expected.keyOffset, expected.keySize) +
                          " expected"};
  }
}

std::uint64_t headerCounter(const std::uint64_t* header, std::size_t word,
                            const std::string& table) {
  const auto number = checkedNumber(loadWord(header[word]));
  if (!number) {
    throw AttachError{AttachFailure::damaged, table,
                      "word " + std::to_string(word) + " of its header is damaged"};
  }
  return *number;
}

}  // namespace Vasta

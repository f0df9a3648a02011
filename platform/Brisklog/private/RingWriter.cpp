#include "platform/Brisklog/private/RingWriter.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <mutex>
#include <span>
#include <string_view>

#include "platform/Korm/Clock.h"
#include "platform/Korm/Hash.h"

namespace Brisklog::detail {
namespace {

constinit std::atomic<std::uint32_t> lastGeneration{0};

Word newInstance() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const auto nanoseconds =
      static_cast<Word>(now.tv_sec) * 1'000'000'000 + static_cast<Word>(now.tv_nsec);
  return (nanoseconds << 16) ^ static_cast<Word>(::getpid());
}

Word textWords(std::size_t bytes) noexcept { return (bytes + sizeof(Word) - 1) / sizeof(Word); }

// The bytes as words, the last one filled up with zeros.
Word* storeWords(Word* next, const char* bytes, std::size_t size) noexcept {
  for (; size >= sizeof(Word); size -= sizeof(Word), bytes += sizeof(Word)) {
    Word word = 0;
    std::memcpy(&word, bytes, sizeof(Word));
    storeShared(*next++, word);
  }
  if (size > 0) {
    storeShared(*next++, Korm::loadPart(bytes, size));
  }
  return next;
}

// The texts one behind the other, the last word filled up with zeros.
void storeJoined(Word* next, std::span<const std::string_view> texts) noexcept {
  Word word = 0;
  unsigned bits = 0;
  for (const std::string_view text : texts) {
    for (const char character : text) {
      word |= static_cast<Word>(static_cast<unsigned char>(character)) << bits;
      bits += 8;
      if (bits == 64) {
        storeShared(*next++, word);
        word = 0;
        bits = 0;
      }
    }
  }
  if (bits != 0) {
    storeShared(*next, word);
  }
}

}  // namespace

RingWriter::RingWriter(Word* memory, std::size_t recordCount, std::size_t dictionaryWords)
    : generation(lastGeneration.fetch_add(1, std::memory_order_relaxed) + 1),
      header(memory),
      records(memory + headerWords),
      dictionary(records + recordCount * recordWords),
      ticketMask(recordCount - 1),
      usesTicks(ticksAreUsable()) {
  storeShared(header[layoutWord], ringLayout);
  storeShared(header[instanceWord], newInstance());
  storeShared(header[ownerWord], static_cast<Word>(::getpid()));
  storeShared(header[recordCountWord], recordCount);
  storeShared(header[dictionaryWordsWord], dictionaryWords);
  storeShared(header[dictionaryUsedWord], 1);
  if (usesTicks) {
    calibrate();
  }
  storeShared(header[magicWord], ringMagic);
}

// A writer claims a record by the slot's sequence word. The head word only says where to start: it
// lags behind when a writer is suspended between the two stores, and then the loop passes over the
// slots that were claimed since.
ClaimedRecord RingWriter::claim() noexcept {
  Word ticket = shared(header[headWord]).load(std::memory_order_acquire);
  for (;;) {
    Word* const slot = records + (ticket & ticketMask) * recordWords;
    const auto sequence = shared(slot[sequenceWord]);
    Word seen = sequence.load(std::memory_order_relaxed);
    if (seen >= sequenceWriting(ticket)) {
      ticket = ticketOf(seen) + 1;
    } else if (isWriting(seen)) {
      // The slot's writer was suspended a whole round ago, or died in a forked child. Skip the
      // slot.
      ++ticket;
    } else if (sequence.compare_exchange_strong(seen, sequenceWriting(ticket),
                                                std::memory_order_acq_rel,
                                                std::memory_order_relaxed)) {
      storeShared(header[headWord], ticket + 1);
      return {.words = slot, .complete = sequenceComplete(ticket)};
    }
  }
}

Word RingWriter::now() noexcept {
  const Word time = ticks();
  if (time >= calibrationDue.load(std::memory_order_relaxed)) [[unlikely]] {
    calibrate();
  }
  return time;
}

void RingWriter::calibrate() noexcept {
  static constinit std::mutex mutex;
  const std::unique_lock lock(mutex, std::try_to_lock);
  // A child forked by the owner must not write the cells at the same time as the owner.
  if (!lock || loadShared(header[ownerWord]) != static_cast<Word>(::getpid())) {
    return;
  }
  const ClockCalibration calibration = calibrateTicks();
  calibrationDue.store(calibration.ticks + calibrationLife(calibration), std::memory_order_relaxed);

  const Word version = loadShared(header[clockVersionWord]) + 1;
  Word* const cell = header + clockCellsWord + (version & 1) * clockCellWords;
  storeShared(cell[0], calibration.ticks);
  storeShared(cell[1], calibration.nanoseconds);
  storeShared(cell[2], std::bit_cast<Word>(calibration.nanosecondsPerTick));
  storeShared(header[clockVersionWord], version);
}

std::uint32_t RingWriter::enter(const TracePoint& point) noexcept {
  const std::array texts{
      point.scope().substr(0, maxEntryText), point.function().substr(0, maxEntryText),
      point.format().substr(0, maxEntryText), point.unit().substr(0, maxEntryText),
      point.handle().name().substr(0, maxEntryText)};
  Word lengths = 0;
  std::size_t characters = 0;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    characters += texts[i].size();
    lengths |= i < 4 ? static_cast<Word>(texts[i].size()) << (16 * i) : 0;
  }
  const Word size = entryTextWord + textWords(characters);
  const Word offset = shared(header[dictionaryUsedWord]).fetch_add(size, std::memory_order_relaxed);
  if (offset + size > loadShared(header[dictionaryWordsWord])) {
    return 0;
  }
  Word* const entry = dictionary + offset;
  storeShared(entry[entryPlaceWord], static_cast<Word>(static_cast<std::uint32_t>(point.level()))
                                             << 32 |
                                         static_cast<std::uint32_t>(point.line()));
  storeShared(entry[entryLengthsWord], lengths);
  storeShared(entry[entryHandleWord], texts.back().size());
  storeJoined(entry + entryTextWord, texts);
  storeShared(entry[entrySizeWord], size);
  return static_cast<std::uint32_t>(offset);
}

Word* storeBytes(Word* next, const Word* end, const void* data, std::size_t size) noexcept {
  const std::size_t room = static_cast<std::size_t>(end - next) * sizeof(Word) - 1;
  const std::size_t stored = std::min(size, room);
  const std::size_t beside = std::min(stored, sizeof(Word) - 1);  // the length, in the first word
  const auto* const bytes = static_cast<const char*>(data);
  storeShared(*next, stored | (stored < size ? cutMark : 0) | Korm::loadPart(bytes, beside) << 8U);
  return storeWords(next + 1, bytes + beside, stored - beside);
}

}  // namespace Brisklog::detail

namespace Brisklog {

namespace detail {
namespace {

// Receives the records while there is no memory for a ring.
ClaimedRecord discardedRecord() noexcept {
  thread_local std::array<Word, recordWords> words;
  return {.words = words.data(), .complete = 0};
}

}  // namespace
}  // namespace detail

detail::ClaimedRecord TracePoint::claim(detail::Word kinds) const noexcept {
  detail::Registration current{.writer = detail::currentWriter.load(std::memory_order_acquire),
                               .word = registration_.load(std::memory_order_acquire)};
  if (current.word >> 32 != current.writer->generation) [[unlikely]] {
    current = detail::registerPoint(*this, registration_);
    if (current.writer == nullptr) {
      return detail::discardedRecord();
    }
  }
  detail::RingWriter& writer = *current.writer;
  const detail::ClaimedRecord claimed = writer.claim();
  const bool hasTicks = writer.usesTicks && !Korm::Moment::exists() && Korm::clockIsSystem();
  const detail::Word flags = hasTicks ? detail::timeIsTicks : 0;
  const detail::Word time =
      hasTicks ? writer.now() : std::bit_cast<detail::Word>(Korm::currentTime());
  detail::storeShared(claimed.words[detail::timeWord], time);
  detail::storeShared(claimed.words[detail::controlWord],
                      (current.word & 0xffffffff) | flags << detail::flagsShift | kinds);
  return claimed;
}

}  // namespace Brisklog

#include "platform/Brisklog/RingReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Brisklog/private/TextFormat.h"

namespace Brisklog {

using detail::loadShared;
using detail::Word;

struct RingReader::RawRecord {
  Word ticket = 0;
  std::array<Word, detail::recordWords> words{};
};

namespace {

// Shown for what the dictionary does not say.
constexpr char unknownMark = '?';

// Decodes the words of a record, whatever is in them.
class PayloadReader {
 public:
  explicit PayloadReader(std::span<const Word> payload) noexcept : payload_(payload) {}

  [[nodiscard]] std::string argument(ArgumentKind kind) {
    if (payload_.empty()) {
      return "?";
    }
    switch (kind) {
      case ArgumentKind::bool_:
        return detail::textOf(word() != 0);
      case ArgumentKind::signed_:
        return detail::textOf(static_cast<std::int64_t>(word()));
      case ArgumentKind::unsigned_:
        return detail::textOf(word());
      case ArgumentKind::double_:
        return detail::textOf(std::bit_cast<double>(word()));
      case ArgumentKind::text_:
      case ArgumentKind::bytes_:
        return bytes(kind);
      case ArgumentKind::none_:
        break;
    }
    return "?";
  }

 private:
  [[nodiscard]] Word word() noexcept {
    const Word value = payload_.front();
    payload_ = payload_.subspan(1);
    return value;
  }

  [[nodiscard]] std::string bytes(ArgumentKind kind) {
    const auto* const start = reinterpret_cast<const char*>(payload_.data());
    const auto head = static_cast<unsigned char>(start[0]);
    const std::size_t size =
        std::min<std::size_t>(head & (detail::cutMark - 1U), payload_.size_bytes() - 1);
    std::string text = kind == ArgumentKind::text_ ? std::string(start + 1, size)
                                                   : detail::textOf(Bytes{start + 1, size});
    if ((head & detail::cutMark) != 0) {
      text += "...";
    }
    payload_ = payload_.subspan(size / sizeof(Word) + 1);
    return text;
  }

  std::span<const Word> payload_;
};

// Appends control characters as "\x" and two digits: a text from outside may contain them.
void appendPrintable(std::string& line, std::string_view text) {
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7f) {
      line += "\\x" + detail::textOf(Bytes{&character, 1});
    } else {
      line += character;
    }
  }
}

void checkRing(const std::string& name, const Korm::Segment& segment) {
  const auto fail = [&](const std::string& why) {
    throw RingError(detail::ringSubject(name) + ": " + why);
  };
  if (segment.size() < detail::headerWords * sizeof(Word)) {
    fail("too short to be one, or not ready yet");
  }
  const Word* const header = segment.words();
  const Word magic = loadShared(header[detail::magicWord]);
  if (magic != detail::ringMagic) {
    fail(magic == 0 ? "not ready yet" : "not a trace ring");
  }
  if (loadShared(header[detail::layoutWord]) != detail::ringLayout) {
    fail("written by a program with another layout of it");
  }
  const Word records = loadShared(header[detail::recordCountWord]);
  const Word dictionaryWords = loadShared(header[detail::dictionaryWordsWord]);
  const Word words = segment.size() / sizeof(Word);
  if (!std::has_single_bit(records) || records > words || dictionaryWords > words ||
      detail::ringBytes(records, dictionaryWords) > segment.size()) {
    fail("shorter than its header says");
  }
}

}  // namespace

std::string DecodedRecord::text() const {
  return detail::messageText(scope, function, format, arguments);
}

std::string DecodedRecord::printedLine() const {
  std::array<char, 512> seconds;
  const int length = std::snprintf(seconds.data(), seconds.size(), "%.6f", time);
  std::string line_(seconds.data(), static_cast<std::size_t>(length));
  line_ += ' ' + std::to_string(level) + ' ';
  appendPrintable(line_, unit);
  line_ += ':' + std::to_string(line) + ' ';
  appendPrintable(line_, text());
  return line_;
}

RingReader RingReader::attach(const std::string& shmName) {
  const std::string subject = detail::ringSubject(shmName);
  if (shmName.empty()) {
    throw RingError(subject + ": an anonymous ring has no name to attach by");
  }
  try {
    auto segment = Korm::Segment::open(detail::ringSegmentName(shmName),
                                       Korm::Segment::Access::readOnly_, 0, subject);
    if (segment == nullptr) {
      throw RingError(subject + ": cannot be opened: No such file or directory");
    }
    checkRing(shmName, *segment);
    const Word* const base = segment->words();
    return {shmName, std::move(segment), base};
  } catch (const std::system_error& error) {
    throw RingError(error.what());
  }
}

RingReader RingReader::attach(const Ring& ring) { return {ring.shmName(), nullptr, ring.words_}; }

RingReader::RingReader(std::string shmName, std::unique_ptr<Korm::Segment> segment,
                       const Word* base)
    : shmName_(std::move(shmName)),
      segment_(std::move(segment)),
      header_(base),
      records_(base + detail::headerWords),
      recordCount_(loadShared(base[detail::recordCountWord])),
      dictionaryWords_(loadShared(base[detail::dictionaryWordsWord])) {
  dictionary_ = records_ + recordCount_ * detail::recordWords;
}

RingReader::~RingReader() = default;
RingReader::RingReader(RingReader&&) noexcept = default;
RingReader& RingReader::operator=(RingReader&&) noexcept = default;

RingReader::Owner RingReader::owner() const {
  if (segment_ == nullptr) {
    return Owner::alive_;
  }
  if (!segment_->isNamed() &&
      Korm::Segment::open(detail::ringSegmentName(shmName_), Korm::Segment::Access::readOnly_, 0,
                          detail::ringSubject(shmName_)) != nullptr) {
    return Owner::replaced_;
  }
  return segment_->isLocked() ? Owner::alive_ : Owner::gone_;
}

pid_t RingReader::ownerProcess() const noexcept {
  return static_cast<pid_t>(loadShared(header_[detail::ownerWord]));
}

const Word* RingReader::slot(Word ticket) const noexcept {
  return records_ + (ticket & (recordCount_ - 1)) * detail::recordWords;
}

// False if the record was overwritten meanwhile. Whoever sees a word of the next record also sees
// its sequence, because payload is stored with release and loaded with acquire.
bool RingReader::copy(Word ticket, RawRecord& raw) const noexcept {
  const Word* const from = slot(ticket);
  raw.ticket = ticket;
  for (std::size_t i = 0; i < detail::recordWords; ++i) {
    raw.words[i] = loadShared(from[i]);
  }
  const Word complete = detail::sequenceComplete(ticket);
  return raw.words[detail::sequenceWord] == complete &&
         loadShared(from[detail::sequenceWord]) == complete;
}

std::vector<DecodedRecord> RingReader::newest(std::size_t count) {
  std::vector<Word> tickets;
  for (std::size_t i = 0; i < recordCount_; ++i) {
    const Word sequence = loadShared(slot(i)[detail::sequenceWord]);
    if (holds(i, sequence) && !detail::isWriting(sequence)) {
      tickets.push_back(detail::ticketOf(sequence));
    }
  }
  std::sort(tickets.begin(), tickets.end());
  const std::size_t wanted = std::min(count, tickets.size());
  std::vector<DecodedRecord> decoded;
  RawRecord raw;
  for (auto ticket = tickets.end() - static_cast<std::ptrdiff_t>(wanted); ticket != tickets.end();
       ++ticket) {
    if (copy(*ticket, raw)) {
      decoded.push_back(decode(raw));
    }
  }
  return decoded;
}

// Whether a sequence word can belong to the slot in which it was found.
bool RingReader::holds(std::size_t slot, Word sequence) const noexcept {
  return sequence != 0 && (detail::ticketOf(sequence) & (recordCount_ - 1)) == slot;
}

// The ticket behind the newest record, by the slots: the head word is only a guess. A single slot
// that is a whole round ahead of all others is damaged.
Word RingReader::end() const noexcept {
  Word newest = 0;
  Word second = 0;
  for (std::size_t i = 0; i < recordCount_; ++i) {
    const Word sequence = loadShared(slot(i)[detail::sequenceWord]);
    const Word after = holds(i, sequence) ? detail::ticketOf(sequence) + 1 : 0;
    second = std::max(second, std::min(newest, after));
    newest = std::max(newest, after);
  }
  return second != 0 && newest - second > recordCount_ ? second : newest;
}

bool RingReader::abandoned(Word ticket, Word end) const {
  return end > ticket + recordCount_ / 2 || owner() != Owner::alive_;
}

// The loop ends whatever the ring contains: each step moves the cursor forward, and never beyond
// the end.
std::vector<DecodedRecord> RingReader::follow(RingCursor& cursor) {
  const Word instance = loadShared(header_[detail::instanceWord]);
  const Word end = this->end();
  const Word oldest = end > recordCount_ ? end - recordCount_ : 0;
  if (cursor.instance != instance || cursor.next > end) {
    cursor = {.instance = instance, .next = oldest, .lost = cursor.lost};
  }
  if (cursor.next < oldest) {
    cursor.lost += oldest - cursor.next;
    cursor.next = oldest;
  }
  std::vector<DecodedRecord> decoded;
  RawRecord raw;
  for (; cursor.next < end; ++cursor.next) {
    const Word sequence = loadShared(slot(cursor.next)[detail::sequenceWord]);
    if (sequence == detail::sequenceWriting(cursor.next) && !abandoned(cursor.next, end)) {
      break;
    }
    if (sequence == detail::sequenceComplete(cursor.next) && copy(cursor.next, raw)) {
      decoded.push_back(decode(raw));
    } else {
      // Overwritten, never completed, or skipped because a suspended writer still held the slot.
      ++cursor.lost;
    }
  }
  return decoded;
}

DecodedRecord RingReader::decode(const RawRecord& raw) {
  const Word control = raw.words[detail::controlWord];
  DecodedRecord record;
  record.number = raw.ticket;
  record.time = decodeTime(raw);
  if (const PointText* const text = point(static_cast<std::uint32_t>(control))) {
    record.level = text->level;
    record.unit = text->unit;
    record.line = text->line;
    record.handle = text->handle;
    record.scope = text->scope;
    record.function = text->function;
    record.format = text->format;
  } else {
    record.described = false;
    record.unit.assign(1, unknownMark);
    record.function.assign(1, unknownMark);
  }
  PayloadReader payload(std::span(raw.words).subspan(detail::payloadWord));
  for (Word kinds = control >> detail::kindsShift; kinds != 0; kinds >>= detail::kindBits) {
    constexpr Word kindMask = (Word{1} << detail::kindBits) - 1;
    record.arguments.push_back(payload.argument(static_cast<ArgumentKind>(kinds & kindMask)));
  }
  return record;
}

double RingReader::decodeTime(const RawRecord& raw) const noexcept {
  const Word time = raw.words[detail::timeWord];
  if ((raw.words[detail::controlWord] >> detail::flagsShift & detail::timeIsTicks) == 0) {
    return std::bit_cast<double>(time);
  }
  for (;;) {
    const Word version = loadShared(header_[detail::clockVersionWord]);
    const Word* const cell =
        header_ + detail::clockCellsWord + (version & 1) * detail::clockCellWords;
    const Word ticks = loadShared(cell[0]);
    const Word nanoseconds = loadShared(cell[1]);
    const auto rate = std::bit_cast<double>(loadShared(cell[2]));
    if (loadShared(header_[detail::clockVersionWord]) == version) {
      const double since = static_cast<double>(static_cast<std::int64_t>(time - ticks)) * rate;
      // In floating point, where damaged words cannot overflow.
      return (static_cast<double>(nanoseconds) + since) / 1e9;
    }
  }
}

const RingReader::PointText* RingReader::point(std::uint32_t id) {
  if (const auto known = points_.find(id); known != points_.end()) {
    return &known->second;
  }
  PointText text;
  return readPoint(id, text) ? &points_.emplace(id, std::move(text)).first->second : nullptr;
}

bool RingReader::readPoint(std::uint32_t id, PointText& text) const {
  if (id == 0 || id + detail::entryTextWord > dictionaryWords_) {
    return false;
  }
  const Word* const entry = dictionary_ + id;
  const Word size = loadShared(entry[detail::entrySizeWord]);
  if (size < detail::entryTextWord || size > dictionaryWords_ - id) {
    return false;
  }
  const Word place = loadShared(entry[detail::entryPlaceWord]);
  text.level = static_cast<int>(static_cast<std::uint32_t>(place >> 32));
  text.line = static_cast<int>(static_cast<std::uint32_t>(place));

  std::string joined((size - detail::entryTextWord) * sizeof(Word), '\0');
  for (std::size_t i = detail::entryTextWord; i < size; ++i) {
    const Word word = loadShared(entry[i]);
    std::memcpy(joined.data() + (i - detail::entryTextWord) * sizeof(Word), &word, sizeof word);
  }
  const Word lengths = loadShared(entry[detail::entryLengthsWord]);
  std::size_t from = 0;
  const auto take = [&](std::string& part, Word length) {
    part = joined.substr(std::min(from, joined.size()), length);
    from += length;
  };
  take(text.scope, lengths & 0xffff);
  take(text.function, lengths >> 16 & 0xffff);
  take(text.format, lengths >> 32 & 0xffff);
  take(text.unit, lengths >> 48);
  take(text.handle, loadShared(entry[detail::entryHandleWord]));
  return true;
}

}  // namespace Brisklog

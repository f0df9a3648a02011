#include "platform/Brisklog/Ring.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <mutex>
#include <utility>

#include "platform/Brisklog/RingWriter.h"
#include "platform/Brisklog/Segment.h"

namespace Brisklog {

namespace detail {
namespace {
constinit RingWriter noRing;
}
constinit std::atomic<RingWriter*> currentWriter{&noRing};
}  // namespace detail

// What the process traces into. Never destroyed: trace points may be passed until the very end.
struct CurrentRing {
  // With the mutex held.
  Ring& get() {
    if (ring == nullptr) {
      set(Ring::create());
    }
    return *ring;
  }

  std::unique_ptr<Ring> set(std::unique_ptr<Ring> next) noexcept {
    std::unique_ptr<Ring> previous(std::exchange(ring, next.release()));
    detail::currentWriter.store(ring != nullptr ? ring->writer_.get() : &detail::noRing,
                                std::memory_order_release);
    return previous;
  }

  void removeName() const noexcept {
    if (ring != nullptr) {
      ring->removeName();
    }
  }

  std::mutex mutex;
  Ring* ring = nullptr;
};

namespace {

constinit CurrentRing current;

struct ExitGuard {
  ~ExitGuard() { current.removeName(); }
};
const ExitGuard exitGuard;

}  // namespace

std::unique_ptr<Ring> Ring::create(const RingOptions& options) {
  constexpr std::size_t fewestRecords = 64;
  constexpr std::size_t mostRecords = std::size_t{1} << 32;
  constexpr std::size_t mostDictionaryBytes = std::size_t{1} << 32;
  if (options.records > mostRecords || options.dictionaryBytes > mostDictionaryBytes) {
    throw RingError("trace ring '" + options.shmName + "': too large");
  }
  const std::size_t records = std::bit_ceil(std::max(options.records, fewestRecords));
  const std::size_t dictionaryWords = options.dictionaryBytes / sizeof(detail::Word);
  const std::size_t bytes = detail::RingWriter::bytes(records, dictionaryWords);
  auto segment = options.shmName.empty() ? detail::Segment::createAnonymous(bytes)
                                         : detail::Segment::createNamed(options.shmName, bytes);
  return std::unique_ptr<Ring>(
      new Ring(options.shmName, std::move(segment), records, dictionaryWords));
}

Ring::Ring(std::string shmName, std::unique_ptr<detail::Segment> segment, std::size_t records,
           std::size_t dictionaryWords)
    : shmName_(std::move(shmName)),
      segment_(std::move(segment)),
      writer_(std::make_unique<detail::RingWriter>(segment_->words(), records, dictionaryWords)) {}

Ring::~Ring() { removeName(); }

std::size_t Ring::records() const noexcept { return writer_->ticketMask + 1; }

// A forked child that ends leaves its parent's name alone.
void Ring::removeName() const noexcept {
  const auto owner = static_cast<pid_t>(detail::loadShared(writer_->header[detail::ownerWord]));
  if (!shmName_.empty() && owner == ::getpid()) {
    segment_->removeName(shmName_);
  }
}

Ring& ring() {
  const std::scoped_lock lock(current.mutex);
  return current.get();
}

std::unique_ptr<Ring> ringIs(std::unique_ptr<Ring> next) {
  const std::scoped_lock lock(current.mutex);
  return current.set(std::move(next));
}

detail::Registration detail::registerPoint(const TracePoint& point,
                                           std::atomic<std::uint64_t>& registration) {
  const std::scoped_lock lock(current.mutex);
  current.get();
  RingWriter* const writer = currentWriter.load(std::memory_order_relaxed);
  std::uint64_t word = registration.load(std::memory_order_relaxed);
  if (word >> 32 != writer->generation) {
    word = static_cast<std::uint64_t>(writer->generation) << 32 | writer->enter(point);
    registration.store(word, std::memory_order_release);
  }
  return {.writer = writer, .word = word};
}

}  // namespace Brisklog

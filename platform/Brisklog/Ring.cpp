#include "platform/Brisklog/Ring.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/Brisklog/private/RingWriter.h"
#include "platform/Korm/Mutex.h"

namespace Brisklog {

namespace detail {
namespace {
constinit RingWriter noRing;
}
constinit std::atomic<RingWriter*> currentWriter{&noRing};
}  // namespace detail

// The current ring of the process. Never destroyed, because trace points may run until the very
// end.
struct CurrentRing {
  Ring& get() KORM_REQUIRES(mutex) {
    if (ring == nullptr) {
      set(Ring::create());
    }
    return *ring;
  }

  std::unique_ptr<Ring> set(std::unique_ptr<Ring> next) noexcept KORM_REQUIRES(mutex) {
    std::unique_ptr<Ring> previous(std::exchange(ring, next.release()));
    detail::currentWriter.store(ring != nullptr ? ring->writer_.get() : &detail::noRing,
                                std::memory_order_release);
    return previous;
  }

  // Does not take the lock: at exit, and in a forked child, its holder may never release it.
  void removeName() const noexcept KORM_THREAD_ANNOTATION(no_thread_safety_analysis) {
    if (ring != nullptr) {
      ring->removeName();
    }
  }

  Korm::Mutex mutex;
  Ring* ring KORM_GUARDED_BY(mutex) = nullptr;
};

namespace {

constinit CurrentRing current;

struct ExitGuard {
  ~ExitGuard() { current.removeName(); }
};
const ExitGuard exitGuard;

// Whether the owner of this ring has died, possibly while it was creating the ring.
bool isStaleRing(const Korm::Segment& segment) noexcept {
  const detail::Word magic = detail::loadShared(segment.words()[detail::magicWord]);
  const detail::Word layout = detail::loadShared(segment.words()[detail::layoutWord]);
  return magic == detail::ringMagic ||
         (magic == 0 && (layout == 0 || layout == detail::ringLayout));
}

// The segment of that name, fresh, locked for this process and allocated in full.
std::unique_ptr<Korm::Segment> ownSegment(const Korm::SegmentName& name, const std::string& subject,
                                          std::size_t bytes) {
  try {
    for (;;) {
      auto segment = Korm::Segment::own(name, bytes, subject);
      if (segment == nullptr) {
        throw RingError(subject + ": another process owns it");
      }
      if (segment->size() == 0) {
        try {
          segment->grow(bytes);
        } catch (...) {
          Korm::unlinkSegment(name);
          throw;
        }
        return segment;
      }
      if (!isStaleRing(*segment)) {
        throw RingError(subject + ": not a trace ring");
      }
      Korm::unlinkSegment(name);
    }
  } catch (const std::system_error& error) {
    throw RingError(error.what());
  }
}

Korm::SegmentName segmentNameOf(const std::string& shmName) {
  try {
    return detail::ringSegmentName(shmName);
  } catch (const std::length_error& error) {
    throw RingError(error.what());
  }
}

}  // namespace

std::unique_ptr<Ring> Ring::create(const RingOptions& options) {
  constexpr std::size_t mostRecords = std::size_t{1} << 32;
  constexpr std::size_t mostDictionaryBytes = std::size_t{1} << 32;
  if (options.records > mostRecords || options.dictionaryBytes > mostDictionaryBytes) {
    throw RingError(detail::ringSubject(options.shmName) + ": too large");
  }
  return std::unique_ptr<Ring>(new Ring(options));
}

Ring::Ring(const RingOptions& options) : shmName_(options.shmName) {
  constexpr std::size_t fewestRecords = 64;
  const std::size_t records = std::bit_ceil(std::max(options.records, fewestRecords));
  const std::size_t dictionaryWords = options.dictionaryBytes / sizeof(detail::Word);
  const std::size_t bytes = detail::ringBytes(records, dictionaryWords);
  detail::Word* words = nullptr;
  if (shmName_.empty()) {
    memory_ = std::make_unique<detail::Word[]>(bytes / sizeof(detail::Word));
    words = memory_.get();
  } else {
    name_ = segmentNameOf(shmName_);
    segment_ = ownSegment(*name_, detail::ringSubject(shmName_), bytes);
    words = segment_->words();
  }
  words_ = words;
  try {
    writer_ = std::make_unique<detail::RingWriter>(words, records, dictionaryWords);
  } catch (...) {
    if (name_) {
      Korm::unlinkSegment(*name_);
    }
    throw;
  }
}

Ring::~Ring() { removeName(); }

std::size_t Ring::records() const noexcept { return writer_->ticketMask + 1; }

// A forked child that ends leaves its parent's name alone.
void Ring::removeName() const noexcept {
  const auto owner = static_cast<pid_t>(detail::loadShared(writer_->header[detail::ownerWord]));
  if (name_ && owner == ::getpid() && segment_->isNamed()) {
    Korm::unlinkSegment(*name_);
  }
}

Ring& ring() {
  const Korm::Lock lock(current.mutex);
  return current.get();
}

std::unique_ptr<Ring> ringIs(std::unique_ptr<Ring> next) {
  const Korm::Lock lock(current.mutex);
  return current.set(std::move(next));
}

detail::Registration detail::registerPoint(const TracePoint& point,
                                           std::atomic<std::uint64_t>& registration) noexcept {
  const Korm::Lock lock(current.mutex);
  try {
    current.get();
  } catch (const std::exception&) {
    return {.writer = nullptr, .word = 0};
  }
  RingWriter* const writer = currentWriter.load(std::memory_order_relaxed);
  std::uint64_t word = registration.load(std::memory_order_relaxed);
  if (word >> 32 != writer->generation) {
    word = static_cast<std::uint64_t>(writer->generation) << 32 | writer->enter(point);
    registration.store(word, std::memory_order_release);
  }
  return {.writer = writer, .word = word};
}

}  // namespace Brisklog

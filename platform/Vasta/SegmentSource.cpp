#include "platform/Vasta/SegmentSource.h"

#include <utility>

#include "platform/Vasta/Errors.h"
#include "platform/Vasta/Layout.h"

namespace Vasta {

NamedSegments::NamedSegments(std::string shmName)
    : shmName_{std::move(shmName)}, names_{shmName_} {}

std::shared_ptr<Korm::Segment> NamedSegments::header() {
  return Korm::Segment::open(names_.header(), Korm::Segment::Access::readOnly_, 0,
                             tableSubject(shmName_));
}

std::shared_ptr<Korm::Segment> NamedSegments::rows() {
  return Korm::Segment::open(names_.rows(), Korm::Segment::Access::readOnly_, rowsReservation,
                             tableSubject(shmName_));
}

std::shared_ptr<Korm::Segment> NamedSegments::index(std::uint64_t& generation) {
  std::shared_ptr<Korm::Segment> segment = Korm::Segment::open(
      names_.index(generation), Korm::Segment::Access::readOnly_, 0, tableSubject(shmName_));
  // The writer frees a replaced index once it holds the exclusive lock. A reader that gets a shared
  // lock before that keeps the index; one that does not must take the new index.
  if (segment != nullptr && !segment->tryLockShared()) {
    return nullptr;
  }
  return segment;
}

LocalSegments::LocalSegments(std::string table, std::shared_ptr<Korm::Segment> header,
                             std::shared_ptr<Korm::Segment> rows)
    : table_{std::move(table)}, header_{std::move(header)}, rows_{std::move(rows)} {}

std::shared_ptr<Korm::Segment> LocalSegments::index(std::uint64_t& generation) {
  const Korm::Lock lock{mutex_};
  generation = generation_;
  return index_;
}

void LocalSegments::indexIs(std::uint64_t generation, std::shared_ptr<Korm::Segment> segment) {
  const Korm::Lock lock{mutex_};
  generation_ = generation;
  index_ = std::move(segment);
}

}  // namespace Vasta

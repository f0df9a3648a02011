// How a reader gets the segments of a table: by name in another process, or directly from the
// writer in the same process.
//
// Threads: any thread may use LocalSegments while the writer works. NamedSegments belong to one
// reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Korm/Mutex.h"
#include "platform/Korm/Segment.h"
#include "platform/Vasta/SegmentNames.h"

namespace Vasta {

class SegmentSource {
 public:
  virtual ~SegmentSource() = default;

  [[nodiscard]] virtual const std::string& name() const noexcept = 0;
  // Null when there is no such segment. May throw std::system_error.
  [[nodiscard]] virtual std::shared_ptr<Korm::Segment> header() = 0;
  [[nodiscard]] virtual std::shared_ptr<Korm::Segment> rows() = 0;
  // The index of this generation or of a later one, whose number `generation` becomes. Null when
  // the index was replaced meanwhile. The writer does not free the segment while the pointer is
  // held.
  [[nodiscard]] virtual std::shared_ptr<Korm::Segment> index(std::uint64_t& generation) = 0;
};

// Opens the segments read-only by their names.
class NamedSegments : public SegmentSource {
 public:
  explicit NamedSegments(std::string shmName);
  [[nodiscard]] const std::string& name() const noexcept override { return shmName_; }
  [[nodiscard]] std::shared_ptr<Korm::Segment> header() override;
  [[nodiscard]] std::shared_ptr<Korm::Segment> rows() override;
  [[nodiscard]] std::shared_ptr<Korm::Segment> index(std::uint64_t& generation) override;

 private:
  const std::string shmName_;
  const SegmentNames names_;
};

// The segments of a writer, for the readers in its process. The writer keeps this up to date.
class LocalSegments : public SegmentSource {
 public:
  LocalSegments(std::string table, std::shared_ptr<Korm::Segment> header,
                std::shared_ptr<Korm::Segment> rows);
  [[nodiscard]] const std::string& name() const noexcept override { return table_; }
  [[nodiscard]] std::shared_ptr<Korm::Segment> header() override { return header_; }
  [[nodiscard]] std::shared_ptr<Korm::Segment> rows() override { return rows_; }
  [[nodiscard]] std::shared_ptr<Korm::Segment> index(std::uint64_t& generation) override;

  // Makes `segment` the index that readers get from now on.
  void indexIs(std::uint64_t generation, std::shared_ptr<Korm::Segment> segment);

 private:
  // Constant after construction.
  const std::string table_;
  const std::shared_ptr<Korm::Segment> header_;
  const std::shared_ptr<Korm::Segment> rows_;
  Korm::Mutex mutex_;
  std::uint64_t generation_ KORM_GUARDED_BY(mutex_) = 0;
  std::shared_ptr<Korm::Segment> index_ KORM_GUARDED_BY(mutex_);
};

}  // namespace Vasta

// Detects a write within a write. Private to the library.
#pragma once

#include "platform/Korm/Notification.h"

namespace Ostra {

// A write to Corvex notifies reactors, and a reactor may remove or rewrite what has just been
// written. A watch is created before the write. It attaches behind all other reactors and counts
// the changes of its key.
template <class Key>
class WriteWatch final : public Korm::Notifiee<const Key&> {
 public:
  template <class K>
  WriteWatch(Korm::NotifieeList<const Key&>& attribute, const K& key) : key_{key} {
    attribute.attach(*this);
  }

  void onAttribute(const Key& key) override { changes_ += key == key_ ? 1 : 0; }

  // Whether a reactor removed what was written, or wrote it again.
  [[nodiscard]] bool overtaken() const noexcept { return changes_ > 1; }

 private:
  const Key key_;
  int changes_ = 0;
};

}  // namespace Ostra

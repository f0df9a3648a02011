#include "platform/Korm/Notification.h"

#include "platform/Korm/Exceptions.h"

namespace Korm {
namespace {
// The innermost delivery of this thread, as a void pointer because its type is nested.
constinit thread_local void* innermost = nullptr;
}  // namespace

void Reactor::detach() noexcept {
  if (list_ != nullptr) {
    list_->detachReactor(*this);
  }
}

NotifieeListBase::~NotifieeListBase() {
  while (first_ != nullptr) {
    detachReactor(*first_);
  }
}

void NotifieeListBase::attachReactor(Reactor& reactor) noexcept {
  assertTrue(reactor.list_ == nullptr, "a reactor attaches to one attribute, once");
  reactor.list_ = this;
  reactor.next_ = nullptr;
  if (first_ == nullptr) {
    reactor.previous_ = &reactor;
    first_ = &reactor;
    return;
  }
  Reactor* const last = first_->previous_;
  reactor.previous_ = last;
  last->next_ = &reactor;
  first_->previous_ = &reactor;
}

void NotifieeListBase::detachReactor(Reactor& reactor) noexcept {
  for (auto* delivery = static_cast<Delivery*>(innermost); delivery != nullptr;
       delivery = delivery->outer_) {
    if (delivery->next_ == &reactor) {
      delivery->next_ = delivery->last_ == &reactor ? nullptr : reactor.next_;
    } else if (delivery->last_ == &reactor) {
      delivery->last_ = reactor.previous_;
    }
  }
  if (reactor.next_ != nullptr) {
    reactor.next_->previous_ = reactor.previous_;
  } else if (first_ != &reactor) {
    first_->previous_ = reactor.previous_;
  }
  if (first_ == &reactor) {
    first_ = reactor.next_;
  } else {
    reactor.previous_->next_ = reactor.next_;
  }
  reactor.list_ = nullptr;
}

NotifieeListBase::Delivery::Delivery(const NotifieeListBase& list) noexcept
    : next_{list.first_}, last_{list.first_->previous_}, outer_{static_cast<Delivery*>(innermost)} {
  innermost = this;
}

NotifieeListBase::Delivery::~Delivery() { innermost = outer_; }

Reactor* NotifieeListBase::Delivery::next() noexcept {
  while (next_ != nullptr) {
    Reactor* const reactor = next_;
    next_ = reactor == last_ ? nullptr : reactor->next_;
    if (reactor->active_) {
      return reactor;
    }
  }
  return nullptr;
}

}  // namespace Korm

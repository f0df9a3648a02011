// Notifications: reactors attached to the attributes of entities.
//
// Delivery is synchronous, in the order of attachment, on the thread of the mutator. It is
// re-entrant: during a delivery reactors may attach, detach, be destroyed, or change the same
// attribute. A reactor that has been destroyed, detached or switched off is not called. One that is
// attached during a delivery does not hear of that change. All others are called exactly once. When
// a reactor throws, the others are called nevertheless; the first exception then leaves the
// mutator.
//
// Threads: one attribute and its reactors belong to one thread at a time.
// Ownership: a reactor belongs to its owner, never to the attribute. Either may be destroyed first.
#pragma once

#include <exception>
#include <utility>

namespace Korm {

class NotifieeListBase;

// What all reactors have in common: their place in an attribute's list, and a switch.
class Reactor {
 public:
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  // Whether changes reach this reactor. On from the start.
  [[nodiscard]] bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active) noexcept { active_ = active; }

  // Whether the reactor is attached to an attribute that still exists.
  [[nodiscard]] bool attached() const noexcept { return list_ != nullptr; }

  // Leaves the attribute. The destructor does so too.
  void detach() noexcept;

 protected:
  Reactor() = default;
  ~Reactor() { detach(); }

 private:
  friend class NotifieeListBase;

  NotifieeListBase* list_ = nullptr;
  Reactor* previous_ = nullptr;  // of the first reactor: the last one
  Reactor* next_ = nullptr;
  bool active_ = true;
};

// The reactors of one attribute, in the order of attachment. It is a single pointer, because most
// attributes have no reactors.
class NotifieeListBase {
 public:
  NotifieeListBase() = default;
  NotifieeListBase(const NotifieeListBase&) = delete;
  NotifieeListBase& operator=(const NotifieeListBase&) = delete;
  ~NotifieeListBase();

  [[nodiscard]] bool empty() const noexcept { return first_ == nullptr; }

 protected:
  void attachReactor(Reactor& reactor) noexcept;

  // One delivery in progress. The deliveries of a thread nest, and form a list. A reactor that is
  // detached removes itself from every delivery that would still call it.
  class Delivery {
   public:
    explicit Delivery(const NotifieeListBase& list) noexcept;
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
    ~Delivery();

    // The next reactor that is attached and switched on, or null.
    [[nodiscard]] Reactor* next() noexcept;

   private:
    friend class NotifieeListBase;

    Reactor* next_;
    Reactor* last_;
    Delivery* outer_;
  };

 private:
  friend class Reactor;

  void detachReactor(Reactor& reactor) noexcept;

  Reactor* first_ = nullptr;
};

// A reactor that receives `Args` with each change: the key for a collection, nothing for a plain
// attribute.
template <class... Args>
class Notifiee : public Reactor {
 public:
  virtual void onAttribute(Args... args) = 0;

 protected:
  Notifiee() = default;
  ~Notifiee() = default;
};

template <class... Args>
class NotifieeList : public NotifieeListBase {
 public:
  using NotifieeType = Notifiee<Args...>;

  // Attaches behind all others.
  // Requires: the reactor is not attached anywhere.
  void attach(NotifieeType& reactor) noexcept { attachReactor(reactor); }

  void notify(Args... args) const {
    if (!empty()) {
      deliver(args...);
    }
  }

 private:
  void deliver(Args... args) const {
    std::exception_ptr first;
    Delivery delivery{*this};
    while (Reactor* reactor = delivery.next()) {
      try {
        static_cast<NotifieeType*>(reactor)->onAttribute(args...);
      } catch (...) {
        if (!first) {
          first = std::current_exception();
        }
      }
    }
    if (first) {
      std::rethrow_exception(std::move(first));
    }
  }
};

// A reactor that calls one member function of its owner.
// Requires: the owner outlives it.
template <class Owner, auto handler, class... Args>
class MemberNotifiee final : public Notifiee<Args...> {
 public:
  MemberNotifiee(Owner& owner, NotifieeList<Args...>& attribute) : owner_{owner} {
    attribute.attach(*this);
  }

  void onAttribute(Args... args) override { (owner_.*handler)(args...); }

 private:
  Owner& owner_;
};

}  // namespace Korm

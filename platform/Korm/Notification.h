// Notifications: reactors attached to the attributes of entities.
//
// Delivery is synchronous, in attachment order, on the thread of the mutator. During a delivery
// reactors may attach, detach, be destroyed, or change the same attribute: none that has been
// destroyed or switched off is called, none attached during a delivery hears of that change,
// nothing is skipped or told twice. An exception from a reactor does not rob the others of the
// change: the first one leaves the mutator after all have been told.
//
// Thread and process rule: one attribute and its reactors belong to one thread at a time.
// Ownership: a reactor belongs to whoever reacts, never to the attribute; either may go first.
#pragma once

#include <exception>
#include <utility>

namespace Korm {

class NotifieeListBase;

// What all reactors have in common: the place in an attribute's list, and the switch.
class Reactor {
 public:
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  // Whether changes reach this reactor. On from the start.
  [[nodiscard]] bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active) noexcept { active_ = active; }

  // Whether the attribute still exists and this reactor has not left it.
  [[nodiscard]] bool attached() const noexcept { return list_ != nullptr; }

  // Leaves the attribute for good; a reactor that is destroyed does so by itself.
  void detach() noexcept;

 protected:
  Reactor() = default;
  ~Reactor() { detach(); }

 private:
  friend class NotifieeListBase;

  NotifieeListBase* list_ = nullptr;
  Reactor* previous_ = nullptr;  // the first one's is the last one
  Reactor* next_ = nullptr;
  bool active_ = true;
};

// The reactors of one attribute, in attachment order. One pointer, as most attributes have none.
class NotifieeListBase {
 public:
  NotifieeListBase() = default;
  NotifieeListBase(const NotifieeListBase&) = delete;
  NotifieeListBase& operator=(const NotifieeListBase&) = delete;
  ~NotifieeListBase();

  [[nodiscard]] bool empty() const noexcept { return first_ == nullptr; }

 protected:
  void attachReactor(Reactor& reactor) noexcept;

  // One delivery under way. Deliveries of a thread nest, and a list's reactors tell those over it
  // when they go.
  class Delivery {
   public:
    explicit Delivery(const NotifieeListBase& list) noexcept;
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
    ~Delivery();

    // The next reactor that is still there and switched on, or null.
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

// A reactor to changes that are told with `Args`: the key of a collection, nothing for a plain
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

  // Attaches behind all others. A reactor attaches to one attribute, once.
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

// A reactor that calls one member function of its owner, which must outlive it.
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

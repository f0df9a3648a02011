// Intrusive reference counting.
//
// Threads: counts are plain integers unless the process calls threadSafePtrIs(true) before its
// first counted object exists. From then on they are atomic.
// Ownership: a counted object belongs to the pointers to it and is destroyed with the last of them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Korm {

namespace detail {
inline constinit std::atomic<bool> ptrThreadSafe{false};
inline constinit std::atomic<bool> ptrInUse{false};
}  // namespace detail

// Makes reference counts atomic (true) or plain (false, as at the start).
// Requires: no counted object has been made yet, unless the value does not change.
void threadSafePtrIs(bool threadSafe) noexcept;

[[nodiscard]] inline bool threadSafePtr() noexcept {
  return detail::ptrThreadSafe.load(std::memory_order_relaxed);
}

// The base of everything that a Ptr can hold.
class Counted {
 public:
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

  [[nodiscard]] std::uint32_t references() const noexcept {
    return references_.load(std::memory_order_relaxed);
  }

 protected:
  Counted() noexcept {
    if (!detail::ptrInUse.load(std::memory_order_relaxed)) [[unlikely]] {
      detail::ptrInUse.store(true, std::memory_order_relaxed);
    }
  }
  virtual ~Counted() = default;

  // Called when the last reference has been dropped; one reference is held during the call. The
  // object is destroyed afterwards unless somebody has taken another reference. Must not throw,
  // because the destructor of a pointer calls it.
  virtual void onZeroReferences() {}

 private:
  template <class T>
  friend class Ptr;

  void retain() const noexcept {
    if (threadSafePtr()) {
      references_.fetch_add(1, std::memory_order_relaxed);
    } else {
      references_.store(references_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

  // Whether that was the last reference.
  [[nodiscard]] bool dropReference() const noexcept {
    if (threadSafePtr()) {
      return references_.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    const std::uint32_t left = references_.load(std::memory_order_relaxed) - 1;
    references_.store(left, std::memory_order_relaxed);
    return left == 0;
  }

  void release() const {
    if (dropReference()) {
      const_cast<Counted*>(this)->zeroReferences();
    }
  }

  void zeroReferences();

  mutable std::atomic<std::uint32_t> references_{0};
};

// A U that a pointer to T may point at.
template <class U, class T>
concept PointableBy = std::is_convertible_v<U*, T*>;

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}    // NOLINT(google-explicit-constructor)
  Ptr(T* object) noexcept : object_{object} {  // NOLINT(google-explicit-constructor)
    retain();
  }
  Ptr(const Ptr& other) noexcept : object_{other.object_} { retain(); }
  Ptr(Ptr&& other) noexcept : object_{std::exchange(other.object_, nullptr)} {}
  template <PointableBy<T> U>
  Ptr(const Ptr<U>& other) noexcept  // NOLINT(google-explicit-constructor)
      : Ptr{other.get()} {}
  template <PointableBy<T> U>
  Ptr(Ptr<U>&& other) noexcept  // NOLINT(google-explicit-constructor)
      : object_{std::exchange(other.object_, nullptr)} {}
  ~Ptr() {
    if (object_ != nullptr) {
      static_cast<const Counted*>(object_)->release();
    }
  }

  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  [[nodiscard]] T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

 private:
  template <class U>
  friend class Ptr;

  void retain() const noexcept {
    if (object_ != nullptr) {
      static_cast<const Counted*>(object_)->retain();
    }
  }

  T* object_ = nullptr;
};

template <class T, class... Args>
[[nodiscard]] Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>{new T(std::forward<Args>(args)...)};
}

// A reference that an object takes to itself while it runs code that might drop the last other one.
// Null while the object has no references: it is under construction then, and cannot be destroyed.
template <class T>
[[nodiscard]] Ptr<T> keptAlive(T& object) noexcept {
  return object.references() > 0 ? Ptr<T>{&object} : Ptr<T>{};
}

// Null when the object is null or of another type.
template <class T, class U>
[[nodiscard]] Ptr<T> dynamicPtrCast(const Ptr<U>& pointer) noexcept {
  return Ptr<T>{dynamic_cast<T*>(pointer.get())};
}

}  // namespace Korm

template <class T>
struct std::hash<Korm::Ptr<T>> {
  std::size_t operator()(const Korm::Ptr<T>& pointer) const noexcept {
    return std::hash<T*>{}(pointer.get());
  }
};

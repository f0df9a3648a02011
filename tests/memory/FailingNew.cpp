// An operator new that fails when the environment says so, for programs that are linked with it:
//   OSTRA_FAIL_NEW=N   the Nth allocation of the process fails, counted from 1; none for 0
//   OSTRA_FAIL_NEW=N+  so does every one after it
// A process that ends with the variable set says on standard error how many there were.
//
// Thread and process rule: any thread; programs with one allocate in the same order in each run.

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<unsigned long> allocations{0};

struct Plan {
  Plan() noexcept {
    const char* const text = std::getenv("OSTRA_FAIL_NEW");
    if (text != nullptr) {
      char* end = nullptr;
      first = std::strtoul(text, &end, 10);
      forGood = *end == '+';
      counts = true;
    }
  }
  unsigned long first = 0;
  bool forGood = false;
  bool counts = false;
};

const Plan& plan() noexcept {
  static const Plan thePlan;
  return thePlan;
}

void* allocate(std::size_t size, std::size_t alignment) {
  const unsigned long number = ++allocations;
  const unsigned long first = plan().first;
  if (first != 0 && (number == first || (plan().forGood && number > first))) {
    throw std::bad_alloc{};
  }
  const std::size_t whole = (size + alignment - 1) / alignment * alignment;
  void* const memory = std::aligned_alloc(alignment, whole == 0 ? alignment : whole);
  if (memory == nullptr) {
    throw std::bad_alloc{};
  }
  return memory;
}

struct Count {
  ~Count() {
    if (plan().counts) {
      (void)::dprintf(STDERR_FILENO, "allocations: %lu\n", allocations.load());
    }
  }
};
const Count count;

}  // namespace

void* operator new(std::size_t size) { return allocate(size, alignof(std::max_align_t)); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }

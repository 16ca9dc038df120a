// Storage for a library-wide object that is built at load and never
// destroyed: the exit handlers run C++ static destructors before the loader
// calls the library's unload function, and that function still needs these
// objects (the final log notice is formatted with them).
#pragma once

#include <new>
#include <utility>

namespace PF::Utils::LOG::detail {

template <class T>
class Immortal {
  public:
    template <class... Args>
    explicit Immortal(Args&&... args) {
        ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
    }
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

  private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace PF::Utils::LOG::detail

// Construct before everything else of the library, and never destroy.
#define ZMLOG_IMMORTAL __attribute__((init_priority(101)))

// The object inside an Immortal, for binding an exported reference. Written as
// a plain cast so the reference is a link-time constant even without
// optimisation: valid before any constructor of the library runs.
// NOLINTNEXTLINE(bugprone-macro-parentheses): T is a type
#define ZMLOG_IMMORTAL_OBJECT(T, holder) (*reinterpret_cast<T*>(&(holder)))

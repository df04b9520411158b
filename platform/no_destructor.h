#pragma once
// Storage for a process-wide object that is built once and never destroyed.
// The host layer's tables live in such storage, as a kernel's would: objects
// still open when the process ends reach them from their destructors, in no
// particular order. So does the board registry, whose controllers must not be
// torn down by static destruction; its orderly end is UsbCtlr::Shutdown.
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

template <class T>
class NoDestructor {
  public:
    template <class... Args>
    explicit NoDestructor(Args&&... args) {
        std::construct_at(reinterpret_cast<T*>(storage_), std::forward<Args>(args)...);
    }
    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

    T& operator*() { return *get(); }
    T* operator->() { return get(); }
    T* get() { return std::launder(reinterpret_cast<T*>(storage_)); }

  private:
    alignas(T) std::byte storage_[sizeof(T)];
};

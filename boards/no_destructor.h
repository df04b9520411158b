#pragma once
// Storage for a process-wide object that is built once and never destroyed.
// The board registry lives in such storage: its controllers must not be torn
// down by static destruction, after the event log and the host layer they
// log through are gone. The orderly end is UsbCtlr::Shutdown.
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

// OlAutoPtr<T>: a one-pointer owner.
//
// Deletes what it holds when it dies and clears itself. It cannot be copied; it can be moved.
// The usual way to take an object out of an owner (for instance a parsed document out of the
// parser) is release(), which hands over the pointer and leaves the owner empty; what is left
// in an owner dies with it.
#pragma once

#include <utility>

template <class T>
class OlAutoPtr {
 public:
  OlAutoPtr() = default;
  explicit OlAutoPtr(T* p) : ptr(p) {}
  ~OlAutoPtr() { reset(); }

  OlAutoPtr(const OlAutoPtr&) = delete;
  OlAutoPtr& operator=(const OlAutoPtr&) = delete;
  OlAutoPtr(OlAutoPtr&& other) noexcept : ptr(other.release()) {}
  OlAutoPtr& operator=(OlAutoPtr&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  T* get() const { return ptr; }
  T* operator->() const { return ptr; }
  T& operator*() const { return *ptr; }
  explicit operator bool() const { return ptr != nullptr; }

  // Gives up ownership: returns the pointer and leaves the owner empty.
  T* release() { return std::exchange(ptr, nullptr); }

  // Deletes the current object (if any) and takes `p`.
  void reset(T* p = nullptr) {
    T* old = std::exchange(ptr, p);
    delete old;
  }

 private:
  T* ptr = nullptr;
};

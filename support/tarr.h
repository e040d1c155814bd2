// TARR: a growable array of pointers to owned elements (TARR<cstr> is a
// list of strings). The array owns its elements: clear() and the
// destructor delete every non-null one.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

template <class T>
class TARR {
 public:
  TARR() = default;
  TARR(const TARR&) = delete;
  TARR& operator=(const TARR&) = delete;
  ~TARR() { clear(); }

  // Inserts `element` at `position` (below 0 or past the count: appended),
  // taking ownership. The array grows by exactly one slot. Returns the slot
  // used, or -1 when memory ran out (then nothing changes and the element
  // stays the caller's).
  int32_t add(T* element, int32_t position = -1) {
    T** grown = static_cast<T**>(realloc(items_, sizeof(T*) * (static_cast<size_t>(count_) + 1)));
    if (grown == nullptr) return -1;
    items_ = grown;
    if (position < 0 || position > count_) position = count_;
    memmove(items_ + position + 1, items_ + position, sizeof(T*) * static_cast<size_t>(count_ - position));
    items_[position] = element;
    ++count_;
    return position;
  }

  void clear() {
    for (int32_t i = 0; i < count_; ++i) delete items_[i];
    free(items_);
    items_ = nullptr;
    count_ = 0;
  }

  int32_t count() const { return count_; }
  T* operator[](int32_t i) const { return (i >= 0 && i < count_) ? items_[i] : nullptr; }

 private:
  T** items_ = nullptr;
  int32_t count_ = 0;
};

// A text that never changes and is shared by all its copies. It takes one pointer, and nothing more
// while it is empty; a copy costs a count. The snapshot holds some millions of them.
//
// A value like a string: it is made from one and converts to one. Any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>

class FSText {
 public:
  FSText() = default;
  FSText(std::string_view text) : FSText(text, {}) {}  // NOLINT(google-explicit-constructor)
  FSText(const std::string& text) : FSText(std::string_view(text)) {}  // NOLINT: likewise
  FSText(const char* text) : FSText(std::string_view(text)) {}         // NOLINT: likewise

  // One text after the other.
  FSText(std::string_view first, std::string_view second);

  FSText(const FSText& other) : shared_(other.shared_) {
    if (shared_ != nullptr) shared_->owners.fetch_add(1, std::memory_order_relaxed);
  }
  FSText(FSText&& other) noexcept : shared_(std::exchange(other.shared_, nullptr)) {}
  FSText& operator=(const FSText& other) { return *this = FSText(other); }
  FSText& operator=(FSText&& other) noexcept {
    std::swap(shared_, other.shared_);
    return *this;
  }
  ~FSText() { LetGo(); }

  std::string_view view() const {
    return shared_ == nullptr ? std::string_view()
                              : std::string_view(shared_->text(), shared_->size);
  }
  operator std::string_view() const { return view(); }          // NOLINT: see above
  operator std::string() const { return std::string(view()); }  // NOLINT: see above
  bool empty() const { return shared_ == nullptr; }

  friend bool operator==(const FSText& a, const FSText& b) {
    return a.shared_ == b.shared_ || a.view() == b.view();
  }

 private:
  // The bytes follow it.
  struct Shared {
    std::atomic<uint32_t> owners;
    uint32_t size;
    char* text() { return reinterpret_cast<char*>(this + 1); }
  };

  void LetGo() {
    if (shared_ == nullptr || shared_->owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    shared_->~Shared();
    ::operator delete(shared_);
  }

  Shared* shared_ = nullptr;
};

inline FSText::FSText(std::string_view first, std::string_view second) {
  const size_t size = first.size() + second.size();
  if (size == 0) return;
  shared_ = new (::operator new(sizeof(Shared) + size)) Shared{{1}, static_cast<uint32_t>(size)};
  if (!first.empty()) std::memcpy(shared_->text(), first.data(), first.size());
  if (!second.empty()) std::memcpy(shared_->text() + first.size(), second.data(), second.size());
}

#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "pages.h"

namespace marbleway::platform {

/// Bytes in one growing block. Growth goes through `realloc`, which moves the pages of a large
/// block instead of copying them, so a document takes little more memory than it has bytes.
class Buffer {
 public:
  Buffer() noexcept = default;
  /// Takes the other's bytes, which is then empty.
  Buffer(Buffer&& other) noexcept { swap(other); }
  /// Takes the other's bytes, which is then empty.
  Buffer& operator=(Buffer&& other) noexcept {
    Buffer(std::move(other)).swap(*this);
    return *this;
  }
  ~Buffer() = default;

  /// How many bytes there are.
  std::size_t size() const noexcept { return size_; }
  /// The bytes. Valid until more are added.
  std::string_view view() const noexcept { return {block_.get(), size_}; }

  /// Adds `bytes` at the end.
  void append(std::string_view bytes) {
    if (bytes.empty()) return;
    std::memcpy(reserve(bytes.size()), bytes.data(), bytes.size());
    size_ += bytes.size();
  }

  /// Where the next `size` bytes may be written; they count from `commit` on.
  char* reserve(std::size_t size) {
    if (size > ready_ - size_) makeReady(size);
    return block_.get() + size_;
  }
  /// Counts `size` bytes that were written there.
  void commit(std::size_t size) noexcept { size_ += size; }

 private:
  /// What a large block asks the system for at once.
  static constexpr std::size_t kPiece = std::size_t{256} * 1024;

  struct Free {
    void operator()(char* block) const noexcept { std::free(block); }
  };

  void swap(Buffer& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(size_, other.size_);
    std::swap(ready_, other.ready_);
    std::swap(capacity_, other.capacity_);
  }

  void makeReady(std::size_t size) {
    if (size > capacity_ - size_) enlarge(size);
    ready_ = capacity_;
    if (capacity_ < 4 * kPiece) return;
    ready_ = std::min(capacity_, size_ + std::max(size, kPiece));
    prefault(block_.get() + size_, std::min(ready_ - size_, kPiece));
  }

  void enlarge(std::size_t size) {
    const std::size_t capacity = (size_ + size) + (size_ + size) / 2 + 4096;
    auto* block = static_cast<char*>(std::realloc(block_.get(), capacity));
    if (block == nullptr) throw std::bad_alloc();
    (void)block_.release();  // `realloc` took the old block
    block_.reset(block);
    capacity_ = capacity;
  }

  std::unique_ptr<char, Free> block_;
  std::size_t size_ = 0;
  std::size_t ready_ = 0;  // up to here `reserve` has nothing to do; at most the capacity
  std::size_t capacity_ = 0;
};

}  // namespace marbleway::platform

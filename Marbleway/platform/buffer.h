#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace marbleway::platform {

/// Bytes in one growing block.
///
/// Growth goes through `realloc`, which moves the pages of a large block instead of copying them,
/// and by an eighth: the block is at most 9/8 of its bytes and 4 KiB.
class Buffer {
 public:
  Buffer() noexcept = default;
  ///@{
  /// Moves the bytes here. `other` is empty afterwards.
  Buffer(Buffer&& other) noexcept { swap(other); }
  Buffer& operator=(Buffer&& other) noexcept {
    Buffer(std::move(other)).swap(*this);
    return *this;
  }
  ///@}
  ~Buffer() = default;

  /// The number of bytes.
  std::size_t size() const noexcept { return size_; }
  /// The bytes. Valid until more are added.
  std::string_view view() const noexcept { return {block_.get(), size_}; }

  /// Adds `bytes` at the end. Throws std::bad_alloc.
  void append(std::string_view bytes) {
    if (bytes.empty()) return;
    std::memcpy(reserve(bytes.size()), bytes.data(), bytes.size());
    size_ += bytes.size();
  }

  /// Where the next `size` bytes may be written. Throws std::bad_alloc.
  char* reserve(std::size_t size) {
    if (size > capacity_ - size_) enlarge(size);
    return block_.get() + size_;
  }
  /// Counts `size` bytes that were written there.
  void commit(std::size_t size) noexcept { size_ += size; }

  /// Drops all bytes after the first `size`.
  void truncate(std::size_t size) noexcept {
    if (size < size_) size_ = size;
  }

 private:
  struct Free {
    void operator()(char* block) const noexcept { std::free(block); }
  };

  void swap(Buffer& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  void enlarge(std::size_t size) {
    const std::size_t capacity = (size_ + size) + (size_ + size) / 8 + kFirstSize;
    auto* block = static_cast<char*>(std::realloc(block_.get(), capacity));
    if (block == nullptr) throw std::bad_alloc();
    (void)block_.release();  // `realloc` freed the old block
    block_.reset(block);
    capacity_ = capacity;
  }

  // Below what `malloc` searches and merges its free blocks for; most texts of a row fit.
  static constexpr std::size_t kFirstSize = 512;

  std::unique_ptr<char, Free> block_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace marbleway::platform

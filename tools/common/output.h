#pragma once

#include <array>
#include <streambuf>

namespace tools {

/// Lets the system write the bytes of standard output as they are, newlines too.
void makeOutputBinary();

/// Standard output, in writes of 64 kB, which knows why one failed.
class Output : public std::streambuf {
 public:
  Output() {
    makeOutputBinary();
    setp(bytes_.data(), bytes_.data() + bytes_.size());
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() override { write(); }

  /// The errno of the first write that failed; 0 if none has.
  int error() const { return error_; }

 protected:
  int overflow(int next) override;
  int sync() override { return write() ? 0 : -1; }

 private:
  bool write();

  std::array<char, 65'536> bytes_{};
  int error_ = 0;
};

}  // namespace tools

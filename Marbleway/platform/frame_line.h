#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace marbleway::platform {

/// The most frames of a call stack; the outer ones of a deeper stack are left out.
inline constexpr std::size_t kMaxFrames = 128;

/// How an address came into a call stack: by a call, which ended just before it, or because the
/// instruction there failed.
enum class AddressKind { returnAddress, faultAddress };

/// The number in hexadecimal after "0x", with at least so many digits.
std::string hexadecimal(std::uint64_t number, std::size_t digits = 1);

/// One line of a call stack: "2 todo 0x00005570f0a4b1c2 save(int) + 0x62". Where the function is
/// not known, the module takes its place: "2 todo 0x00005570f0a4b1c2 todo + 0x1b1c2".
std::string frameLine(std::size_t number, std::uintptr_t address, AddressKind kind);

/// The beginning of such a line: "2 todo 0x00005570f0a4b1c2".
std::string frameLine(std::size_t number, std::uint64_t address, const std::string& module);

}  // namespace marbleway::platform

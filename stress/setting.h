#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include "stress/loops.h"
#include "tests/support/process_ends.h"

namespace marbleway::stress {

/// Starts the library on this system's own services: stores in `directory`, no lines, the server
/// at `url`.
void startLibrary(const std::filesystem::path& directory, const std::string& url);

/// Runs `round` so many times, each in an empty directory of its own and with chance of its own.
/// The outcome is met when no round has a fault; it names the first.
using Chance = std::mt19937;
using Round = std::function<tests::Fault(const std::filesystem::path& directory, Chance& chance)>;
Outcome repeat(const Effort& effort, int rounds, const Round& round);

/// An instant before `longest`, each as likely as the others.
std::chrono::nanoseconds instantBefore(std::chrono::nanoseconds longest, Chance& chance);

/// "1.25 ms".
std::string milliseconds(std::chrono::nanoseconds time);

/// The names of all events in the stores of `directory`, in order.
std::vector<std::string> eventNames(const std::filesystem::path& directory);

/// "0 of 100 lost".
std::string lossOf(std::size_t found, std::size_t recorded);

}  // namespace marbleway::stress

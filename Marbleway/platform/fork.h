#pragma once

#include <system_mutex.h>  // of this system

#include <memory>
#include <mutex>

namespace marbleway::platform {

void enterForkSection() noexcept;
void leaveForkSection() noexcept;

/// Code that holds a lock: one of the library's own, or one inside SQLite, libcurl, RE2 or the C
/// library. A fork on another thread waits until no thread is in such a section, 2 s at most, so
/// that its child finds no lock held and no value half written. A thread that enters while a fork
/// is under way waits as long. Sections nest. Thread: left by the one that entered.
class ForkSection {
 public:
  ForkSection() noexcept { enterForkSection(); }
  ForkSection(const ForkSection&) = delete;
  ForkSection& operator=(const ForkSection&) = delete;
  ~ForkSection() { leaveForkSection(); }
};

/// A mutex that is free in every child of a fork.
class ForkSafeMutex {
 public:
  constexpr ForkSafeMutex() = default;
  void lock();
  void unlock();

 private:
  SystemMutex mutex_;
};

/// How many forks lie between the program's first process and this one.
int forkCount() noexcept;

/// True in a child whose fork found a thread in a section for longer than it waits, or interrupted
/// one with the signal handler that forks. The library does nothing in such a process.
bool isUnusableChild() noexcept;

/// False in a child of a fork until `startRecording`: no store is opened in it.
bool mayRecord() noexcept;
/// Called by start-up. False in an unusable child, where start-up does nothing.
bool startRecording() noexcept;

/// Has `reset` run in each child before `fork` returns; not in an unusable one.
void resetInChild(void (*reset)()) noexcept;

/// Drops `object` without destroying it, in a child: the threads that serve it are the parent's.
void abandon(std::shared_ptr<const void> object);

}  // namespace marbleway::platform

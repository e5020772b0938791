#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Lock annotations, checked by clang's -Wthread-safety (preset `thread-safety`); nothing for other compilers.
// Names and meaning: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#if defined(__clang__)
#define VOND_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VOND_THREAD_ANNOTATION(x)
#endif
#define CAPABILITY(x) VOND_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VOND_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VOND_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) VOND_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VOND_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VOND_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) VOND_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace korvo::utils {

/// std::mutex with annotations. Any locking error is a std::system_error.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class CondVar;
  std::mutex mutex_;
};

/// Holds a Mutex for a scope; may be given up and taken again inside it.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() {
    if (held_) {
      mutex_.unlock();
    }
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Unlock() RELEASE() {
    held_ = false;
    mutex_.unlock();
  }
  void Lock() ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

/// Condition variable for Mutex. Waits may wake spuriously: callers test their predicate in a loop.
class CondVar {
 public:
  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  /// Waits until `deadline` on the real-time clock at the latest.
  void WaitUntil(Mutex& mutex, std::chrono::system_clock::time_point deadline) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait_until(lock, deadline);
    lock.release();
  }
  void NotifyOne() noexcept { condition_.notify_one(); }
  void NotifyAll() noexcept { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace korvo::utils

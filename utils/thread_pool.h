#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <string>

#include "utils/mutex.h"

namespace korvo::utils {

/// Runs tasks on a small, elastic set of detached threads: grows by one when queued work exceeds the idle workers,
/// shrinks when surplus workers stay idle, and refuses work beyond a queue limit. Any thread may call any method; the
/// pool must outlive every call. A locking error is a std::system_error.
///
/// Invariants, under the mutex:
///  1. thread_count_ counts workers that were started and have not ended; the worker itself takes its own off as its
///     last act under the mutex, and touches no member after that.
///  2. busy_count_ <= thread_count_ (but for a thread that could not be created, whose count is given back at once).
///  3. No thread is created while the mutex is held.
///  4. stop_ is only ever set.
class ThreadPool {
 public:
  using Task = std::function<void()>;
  static constexpr std::uint64_t kNoQueueLimit = std::numeric_limits<std::uint64_t>::max();

  /// Starts no thread. Workers are named after the first 15 characters of `name`, or keep their name if it is empty.
  ThreadPool(std::string name, std::uint64_t min_threads, std::uint64_t max_threads, std::uint64_t queue_limit,
             std::chrono::milliseconds idle_timeout);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;
  /// Stops (see Stop) and destroys queued tasks unrun.
  ~ThreadPool();

  /// Starts `count` workers. A thread that can't be created is left out in silence.
  void StartThreads(std::uint64_t count) EXCLUDES(mutex_);

  /// Queues `task`, or drops it unrun, on purpose without a word, when the pool is stopping or the queue is full.
  /// What a task throws is swallowed. Returns whether it was queued.
  bool AddTask(Task task) EXCLUDES(mutex_);

  /// New bounds for the number of workers. Surplus workers leave after their idle timeout, not at once.
  void SetLimits(std::uint64_t min_threads, std::uint64_t max_threads) EXCLUDES(mutex_);

  /// Lets running tasks finish, runs no queued one, and returns when every worker has ended.
  void Stop() EXCLUDES(mutex_);

  [[nodiscard]] std::uint64_t GetThreadCount() EXCLUDES(mutex_);
  [[nodiscard]] std::uint64_t GetMaxThreads() EXCLUDES(mutex_);

 private:
  // Starts a worker that thread_count_ already holds.
  void StartCountedThread() EXCLUDES(mutex_);
  void WorkerLoop() EXCLUDES(mutex_);
  // Runs the front task with the mutex released.
  void RunFrontTask() REQUIRES(mutex_);
  // Waits for work. False when this worker has been idle for too long.
  bool WaitForWork() REQUIRES(mutex_);

  const std::string name_;
  std::uint64_t min_threads_ GUARDED_BY(mutex_);
  std::uint64_t max_threads_ GUARDED_BY(mutex_);
  const std::uint64_t queue_limit_;
  const std::chrono::milliseconds idle_timeout_;
  bool stop_ GUARDED_BY(mutex_) = false;
  std::uint64_t thread_count_ GUARDED_BY(mutex_) = 0;
  std::uint64_t busy_count_ GUARDED_BY(mutex_) = 0;
  Mutex mutex_;
  CondVar condition_;
  std::deque<Task> tasks_ GUARDED_BY(mutex_);
  // For the debugger; reported nowhere.
  std::uint64_t completed_tasks_ GUARDED_BY(mutex_) = 0;
  std::atomic<std::uint64_t> started_threads_{0};
  double total_task_seconds_ GUARDED_BY(mutex_) = 0;  // of the workers' own processor time
};

}  // namespace korvo::utils

#include "utils/thread_pool.h"

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <thread>
#include <utility>

namespace korvo::utils {
namespace {

// Longest name of a Linux thread, its terminating zero included.
constexpr std::size_t kThreadNameSize = 16;
constexpr timespec kStopPollInterval{0, 10'000'000};
// A longer idle timeout would overflow the clocks' arithmetic.
constexpr std::chrono::milliseconds kMaxIdleTimeout = std::chrono::hours(24 * 365);

// Gives the calling thread a name for its lifetime.
class ScopedThreadName {
 public:
  explicit ScopedThreadName(const std::string& name) : active_(!name.empty()) {
    if (active_) {
      ::pthread_getname_np(::pthread_self(), saved_.data(), saved_.size());
      ::pthread_setname_np(::pthread_self(), name.substr(0, kThreadNameSize - 1).c_str());
    }
  }
  ~ScopedThreadName() {
    if (active_) {
      ::pthread_setname_np(::pthread_self(), saved_.data());
    }
  }
  ScopedThreadName(const ScopedThreadName&) = delete;
  ScopedThreadName& operator=(const ScopedThreadName&) = delete;

 private:
  bool active_;
  std::array<char, kThreadNameSize> saved_{};
};

timespec ThreadCpuTime() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now;
}

}  // namespace

ThreadPool::ThreadPool(std::string name, std::uint64_t min_threads, std::uint64_t max_threads,
                       std::uint64_t queue_limit, std::chrono::milliseconds idle_timeout)
    : name_(std::move(name)),
      min_threads_(min_threads),
      max_threads_(max_threads),
      queue_limit_(queue_limit),
      idle_timeout_(std::min(idle_timeout, kMaxIdleTimeout)) {}

ThreadPool::~ThreadPool() { Stop(); }

void ThreadPool::StartThreads(std::uint64_t count) {
  {
    const MutexLock lock(mutex_);
    thread_count_ += count;
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    StartCountedThread();
  }
}

void ThreadPool::StartCountedThread() {
  try {
    std::thread(&ThreadPool::WorkerLoop, this).detach();
    ++started_threads_;
  } catch (const std::exception&) {  // std::system_error, or no memory for the thread's state
    const MutexLock lock(mutex_);
    --thread_count_;
  }
}

bool ThreadPool::AddTask(Task task) {
  bool start_thread = false;
  {
    const MutexLock lock(mutex_);
    if (stop_ || (queue_limit_ != kNoQueueLimit && tasks_.size() >= queue_limit_)) {
      return false;
    }
    tasks_.push_back(std::move(task));
    if (thread_count_ - busy_count_ < tasks_.size() && thread_count_ < max_threads_) {
      ++thread_count_;
      start_thread = true;
    }
  }
  if (start_thread) {
    StartCountedThread();
  }
  condition_.NotifyOne();
  return true;
}

void ThreadPool::SetLimits(std::uint64_t min_threads, std::uint64_t max_threads) {
  const MutexLock lock(mutex_);
  min_threads_ = min_threads;
  max_threads_ = max_threads;
}

void ThreadPool::Stop() {
  MutexLock lock(mutex_);
  stop_ = true;
  while (thread_count_ != 0) {
    lock.Unlock();
    condition_.NotifyAll();
    timespec remaining = kStopPollInterval;
    while (::nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
    lock.Lock();
  }
}

std::uint64_t ThreadPool::GetThreadCount() {
  const MutexLock lock(mutex_);
  return thread_count_;
}

std::uint64_t ThreadPool::GetMaxThreads() {
  const MutexLock lock(mutex_);
  return max_threads_;
}

void ThreadPool::WorkerLoop() {
  const ScopedThreadName thread_name(name_);
  const MutexLock lock(mutex_);
  while (!stop_) {
    if (!tasks_.empty()) {
      RunFrontTask();
    } else if (!WaitForWork()) {
      break;
    }
  }
  --thread_count_;
}

void ThreadPool::RunFrontTask() {
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  ++busy_count_;
  mutex_.unlock();

  const timespec begin = ThreadCpuTime();
  try {
    task();
  } catch (...) {  // the daemon's tasks log their own failures; nothing may end a worker
  }
  const timespec end = ThreadCpuTime();

  mutex_.lock();
  --busy_count_;
  ++completed_tasks_;
  total_task_seconds_ +=
      static_cast<double>(end.tv_sec - begin.tv_sec) + static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
}

bool ThreadPool::WaitForWork() {
  if (thread_count_ <= min_threads_) {
    condition_.Wait(mutex_);
    return true;
  }
  // The wait itself is on the real-time clock; a step of that clock must not cut the idle time short, so the steady
  // clock has the last word.
  const auto deadline = std::chrono::steady_clock::now() + idle_timeout_;
  while (!stop_ && tasks_.empty()) {
    const auto remaining = deadline - std::chrono::steady_clock::now();
    if (remaining <= std::chrono::steady_clock::duration::zero()) {
      return thread_count_ <= min_threads_;
    }
    condition_.WaitUntil(mutex_, std::chrono::system_clock::now() + remaining);
  }
  return true;
}

}  // namespace korvo::utils

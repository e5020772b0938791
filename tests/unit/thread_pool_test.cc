#include "utils/thread_pool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include "tests/support/test_support.h"

namespace {

using korvo::utils::ThreadPool;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::steady_clock;
using vond::test::WaitUntil;

// Tasks that keep their workers until it is opened.
struct Gate {
  std::atomic<int> waiting{0};
  std::atomic<bool> open{false};
  ThreadPool::Task Task() {
    return [this] {
      ++waiting;
      EXPECT_TRUE(WaitUntil([this] { return open.load(); }));
    };
  }
  bool HasCaught(int workers) {
    return WaitUntil([=, this] { return waiting == workers; });
  }
};

// Tasks that count their runs; Gone() says that the pool has let go of them all.
struct Counted {
  std::shared_ptr<std::atomic<int>> runs = std::make_shared<std::atomic<int>>(0);
  ThreadPool::Task Task() const {
    return [counter = runs] { ++*counter; };
  }
  bool Gone() const {
    return WaitUntil([this] { return runs.use_count() == 1; });
  }
};

TEST(ThreadPool, GrowsWithQueuedWorkUpToItsMaximum) {
  Gate gate;
  const Counted counted;
  ThreadPool pool("pool", 1, 3, ThreadPool::kNoQueueLimit, minutes(1));
  for (int i = 0; i < 5; ++i) {  // one task at a time needs one worker
    EXPECT_TRUE(pool.AddTask(counted.Task()) && counted.Gone());
    EXPECT_EQ(pool.GetThreadCount(), 1U);
  }
  const auto add = [&] { return pool.AddTask(gate.Task()) ? pool.GetThreadCount() : 0; };
  for (const std::uint64_t threads : {1U, 2U, 3U, 3U, 3U}) {
    EXPECT_EQ(add(), threads);
  }
  ASSERT_TRUE(gate.HasCaught(3));
  pool.SetLimits(1, 2);  // ends nobody, stops growth
  EXPECT_EQ(pool.GetMaxThreads(), 2U);
  EXPECT_EQ(add(), 3U);
  pool.SetLimits(1, 4);
  EXPECT_EQ(add(), 4U);
  gate.open = true;
}

TEST(ThreadPool, EndsIdleWorkersAboveTheMinimum) {
  constexpr milliseconds kIdle(200);
  for (const std::uint64_t minimum : {0U, 1U, 2U}) {
    Gate gate;
    const Counted counted;
    ThreadPool pool("pool", minimum, 4, ThreadPool::kNoQueueLimit, kIdle);
    for (int i = 0; i < 4; ++i) {
      ASSERT_TRUE(pool.AddTask(gate.Task()));
    }
    ASSERT_TRUE(gate.HasCaught(4));
    const auto begin = steady_clock::now();
    gate.open = true;
    EXPECT_TRUE(WaitUntil([&] { return pool.GetThreadCount() < 4; }));
    EXPECT_GE(steady_clock::now() - begin, kIdle);
    EXPECT_TRUE(WaitUntil([&] { return pool.GetThreadCount() <= minimum; }));
    std::this_thread::sleep_for(2 * kIdle);
    EXPECT_EQ(pool.GetThreadCount(), minimum);
    EXPECT_TRUE(pool.AddTask(counted.Task()) && counted.Gone());
    EXPECT_EQ(*counted.runs, 1);
  }
}

TEST(ThreadPool, StopWaitsForRunningTasksAndRunsNoQueuedOne) {
  Gate gate;
  const Counted queued;
  {
    ThreadPool pool("pool", 1, 2, ThreadPool::kNoQueueLimit, minutes(1));
    ASSERT_TRUE(pool.AddTask(gate.Task()) && pool.AddTask(gate.Task()) && gate.HasCaught(2));
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(pool.AddTask(queued.Task()));
    }
    std::thread stop([&] {
      pool.Stop();
      EXPECT_TRUE(gate.open);
    });
    EXPECT_TRUE(WaitUntil([&] { return !pool.AddTask(queued.Task()); }));
    std::this_thread::sleep_for(milliseconds(50));
    gate.open = true;
    stop.join();
    EXPECT_EQ(pool.GetThreadCount(), 0U);
  }
  EXPECT_TRUE(queued.Gone());
  EXPECT_EQ(*queued.runs, 0);
}

TEST(ThreadPool, WorkersHaveTheirNameAndSurviveExceptions) {
  const auto own_name = [] {
    std::array<char, 16> text{};
    ::pthread_getname_np(::pthread_self(), text.data(), text.size());
    return std::string(text.data());
  };
  const std::vector<std::array<std::string, 2>> rows = {
      {"RequestHandler", "RequestHandler"}, {"1234567890123456", "123456789012345"}, {"", own_name()}};
  for (const auto& [pool_name, worker_name] : rows) {
    std::vector<std::pair<std::string, std::thread::id>> workers;
    const Counted last;
    ThreadPool pool(pool_name, 1, 1, ThreadPool::kNoQueueLimit, minutes(1));
    const ThreadPool::Task note = [&] { workers.emplace_back(own_name(), std::this_thread::get_id()); };
    for (const ThreadPool::Task& task : {note, ThreadPool::Task([] { throw std::string(); }),
                                         ThreadPool::Task([] { throw std::bad_alloc(); }), ThreadPool::Task(), note}) {
      EXPECT_TRUE(pool.AddTask(task));
    }
    ASSERT_TRUE(pool.AddTask(last.Task()) && last.Gone() && *last.runs == 1);
    ASSERT_EQ(workers.size(), 2U);
    EXPECT_EQ(workers[0].first, worker_name);
    EXPECT_EQ(workers[0], workers[1]);
  }
}

TEST(ThreadPool, RunsEachTaskOnceUnderContention) {
  std::vector<std::atomic<int>> runs(2000);
  ThreadPool pool("pool", 1, 4, ThreadPool::kNoQueueLimit, milliseconds(1));
  std::vector<std::thread> producers;
  for (std::size_t producer = 0; producer < 4; ++producer) {
    producers.emplace_back([&, producer] {
      for (std::size_t i = producer; i < runs.size(); i += 4) {
        EXPECT_TRUE(pool.AddTask([&run = runs[i]] { ++run; }));
        if (i % 100 < 4) {
          pool.SetLimits(1, 1 + i % 5);
          std::this_thread::sleep_for(milliseconds(3));  // lets workers end
        }
      }
    });
  }
  std::for_each(producers.begin(), producers.end(), [](std::thread& producer) { producer.join(); });
  EXPECT_TRUE(WaitUntil([&] { return std::count(runs.begin(), runs.end(), 1) == 2000; }));
  EXPECT_TRUE(WaitUntil([&] { return pool.GetThreadCount() == 1; }));
}

}  // namespace

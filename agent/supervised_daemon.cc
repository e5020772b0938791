#include "agent/supervised_daemon.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace vond::agent {
namespace {

using korvo::utils::MutexLock;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kFirstBackOff{100};
constexpr std::size_t kMostDoublings = 9;

std::string Seconds(milliseconds time) {
  const auto tenths = time.count() / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

std::uint64_t Now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

}  // namespace

bool CrashWindow::Note(TimePoint now) {
  crashes_.push_back(now);
  while (now - crashes_.front() > span_) {
    crashes_.pop_front();
  }
  return crashes_.size() < most_;
}

milliseconds CrashWindow::BackOff() const {
  const std::size_t before = crashes_.empty() ? 0 : crashes_.size() - 1;
  return kFirstBackOff * (1U << std::min(before, kMostDoublings));
}

SupervisedDaemon::SupervisedDaemon(Options options, HeldPolicy policy)
    : options_(std::move(options)), policy_(std::move(policy)) {
  std::unique_ptr<Client> client = StartDaemon();
  client->ApplyPolicy(policy_.policy, options_.policy_timeout);
  {
    const MutexLock lock(mutex_);
    state_.alive = true;
    state_.pid = client->Process().Pid();
    state_.policy = policy_.description;
    state_.policy.set_generation(1);
    state_.policy.set_loaded_at(Now());
    state_.document = policy_.document;
    current_ = std::move(client);
  }
  worker_ = std::thread(&SupervisedDaemon::Work, this);
}

SupervisedDaemon::~SupervisedDaemon() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
    if (loading_ != nullptr) {
      loading_->Abandon();  // or the policy would be waited for
    }
    condition_.notify_all();
  }
  worker_.join();
}

std::unique_ptr<Client> SupervisedDaemon::StartDaemon() {
  std::uint64_t incarnation = 0;
  {
    const MutexLock lock(mutex_);
    incarnation = ++incarnation_;
  }
  return std::make_unique<Client>(options_.daemon, [this, incarnation] {
    const MutexLock lock(mutex_);
    if (incarnation == incarnation_) {
      died_ = true;
      state_.alive = false;
      ++version_;
      condition_.notify_all();
    }
  });
}

void SupervisedDaemon::ApplyAsync(MakePolicy make, Applied done) {
  const MutexLock lock(mutex_);
  jobs_.push_back({std::move(make), std::move(done)});
  condition_.notify_all();
}

bool SupervisedDaemon::TrySend(const korvo_daemon::Request& request, const std::vector<int>& fds,
                               Client::Callback callback) {
  const MutexLock lock(mutex_);
  if (current_ == nullptr || died_) {
    return false;
  }
  // Deadlines are the caller's.
  current_->SendNowAsync(request, fds, steady_clock::now() + std::chrono::hours(24 * 365), std::move(callback));
  return true;
}

void SupervisedDaemon::Abandon(const std::string& why) {
  const MutexLock lock(mutex_);
  if (current_ != nullptr && !died_) {
    current_->Abandon();
    why_died_ = why;
    died_ = true;  // at once: a process that can't be killed yet keeps its channel
    state_.alive = false;
    ++version_;
    condition_.notify_all();
  }
}

SupervisedDaemon::State SupervisedDaemon::GetState() {
  const MutexLock lock(mutex_);
  return state_;
}

std::uint64_t SupervisedDaemon::Version() {
  const MutexLock lock(mutex_);
  return version_;
}

void SupervisedDaemon::Work() {
  while (true) {
    std::optional<Job> job;
    {
      const MutexLock lock(mutex_);
      while (!stop_ && !died_ && jobs_.empty()) {
        condition_.wait(mutex_);
      }
      if (stop_) {
        break;
      }
      if (!died_) {
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
    }
    if (job) {
      RunJob(std::move(*job));
    } else {
      Restart();
    }
  }
  std::unique_ptr<Client> client;
  {
    const MutexLock lock(mutex_);
    client = std::move(current_);
  }
}

void SupervisedDaemon::Restart() {
  std::unique_ptr<Client> dead;
  std::string how;
  {
    const MutexLock lock(mutex_);
    dead = std::move(current_);
    died_ = false;
    ++incarnation_;
    how = std::exchange(why_died_, "");
    state_.alive = false;
    state_.pid = -1;
    ++version_;
  }
  if (how.empty() && dead) {
    how = dead->WhyDead();
  }
  dead.reset();  // all that was open has its end from here on
  options_.on_change();
  std::optional<std::string> problem = how;
  while (problem) {
    if (!crashes_.Note(steady_clock::now())) {
      {
        const MutexLock lock(mutex_);
        state_.failure = *problem + "; that was crash " + std::to_string(crashes_.Crashes()) +
                         " within a minute, and it is not started again";
        ++version_;
      }
      options_.on_change();
      static_cast<void>(Pause(milliseconds::max()));
      return;
    }
    options_.say(*problem + "; starting it again in " + Seconds(crashes_.BackOff()));
    if (!Pause(crashes_.BackOff())) {
      return;
    }
    problem = TryRestart();
  }
  if (GetState().alive) {
    options_.say("vond is back, with the policy that was in force");
  }
  options_.on_change();
}

std::optional<std::string> SupervisedDaemon::TryRestart() {
  std::unique_ptr<Client> client;
  try {
    client = StartDaemon();
    {
      const MutexLock lock(mutex_);
      if (stop_) {
        return std::nullopt;
      }
      loading_ = client.get();
    }
    client->ApplyPolicy(policy_.policy, options_.policy_timeout);
    const MutexLock lock(mutex_);
    loading_ = nullptr;
    state_.pid = client->Process().Pid();
    state_.alive = !died_;
    ++state_.restarts;
    ++version_;
    current_ = std::move(client);
    return std::nullopt;
  } catch (const Error& e) {
    const MutexLock lock(mutex_);
    loading_ = nullptr;
    died_ = false;  // known already
    ++incarnation_;
    return e.what();
  }
}

void SupervisedDaemon::RunJob(Job job) {
  std::optional<std::string> refusal;
  bool unknown = false;
  try {
    HeldPolicy policy = job.make();
    Client* client = nullptr;
    {
      const MutexLock lock(mutex_);
      client = current_.get();
      loading_ = client;
      if (stop_ || client == nullptr) {
        return;
      }
    }
    client->ApplyPolicy(policy.policy, options_.policy_timeout);
    policy_ = std::move(policy);
  } catch (const Error& e) {
    unknown = e.Code() == ErrorCode::kDeadlineExceeded;
    refusal = e.what();
  } catch (const std::exception& e) {
    refusal = e.what();
  }
  if (unknown) {
    Abandon("vond did not answer a policy in time and was killed");  // it comes back with the one before
  }
  {
    const MutexLock lock(mutex_);
    loading_ = nullptr;
    ++version_;
    vond_relay::Policy& policy = state_.policy;
    const std::uint64_t generation = policy.generation();
    const std::uint64_t refused = policy.refused();
    if (refusal) {
      policy.set_refused(refused + 1);
    } else {
      policy = policy_.description;
      policy.set_generation(generation + 1);
      policy.set_refused(refused);
      policy.set_loaded_at(Now());
      state_.document = policy_.document;
    }
  }
  job.done(refusal);
  options_.on_change();
}

bool SupervisedDaemon::Pause(milliseconds time) {
  const auto until = time == milliseconds::max() ? steady_clock::time_point::max() : steady_clock::now() + time;
  const MutexLock lock(mutex_);
  while (!stop_ && steady_clock::now() < until) {
    if (time == milliseconds::max()) {
      condition_.wait(mutex_);
    } else {
      condition_.wait_until(mutex_, until);
    }
  }
  return !stop_;
}

}  // namespace vond::agent

#include "Velum/Platform/Linux/Secrets/SecretWorkers.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <utility>

#include "Velum/Base/Deadline.h"
#include "Velum/Platform/Linux/Secrets/SecretServicePlace.h"
#include "Velum/Platform/Thread.h"

namespace velum {

struct SecretWorkers::Job {
  enum class Stage : std::uint8_t { queued, running, done };

  Work work;
  Stage stage = Stage::queued;
  bool isAbandoned = false;
  std::condition_variable finished;
};

/// Shared with the threads, which may outlive the object.
struct SecretWorkers::State : std::enable_shared_from_this<State> {
  explicit State(std::chrono::nanoseconds pause_) : pause(pause_) {}

  const std::chrono::nanoseconds pause;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::shared_ptr<Job>> queue;
  bool hasServer = false;  // a thread takes jobs from the queue
  int abandoned = 0;       // threads that are in a job nobody waits for
  bool isEnding = false;
  SecretCall::Clock::time_point pausedUntil{};

  void ensureServerLk() {
    if (hasServer || abandoned >= maximumAbandoned) return;
    const int error = startThread("velum-secrets", [state = shared_from_this()] { serve(state); });
    if (error != 0) throw std::system_error(error, std::generic_category());
    hasServer = true;
  }

  /// After a job: whether the thread that did it goes on serving.
  bool goesOnLk(const Job& job) {
    pausedUntil = {};  // it answers
    if (!job.isAbandoned) return true;
    --abandoned;
    return !std::exchange(hasServer, true);
  }
};

SecretWorkers::SecretWorkers(std::chrono::nanoseconds pause)
    : state_(std::make_shared<State>(pause)) {}

SecretWorkers::~SecretWorkers() {
  const std::lock_guard guard(state_->mutex);
  state_->isEnding = true;
  state_->wake.notify_all();
}

void SecretWorkers::serve(const std::shared_ptr<State>& state) {
  SecretServicePlace service;
  std::unique_lock lock(state->mutex);
  for (;;) {
    state->wake.wait(lock, [&] { return state->isEnding || !state->queue.empty(); });
    if (state->queue.empty()) return;
    const std::shared_ptr<Job> job = std::move(state->queue.front());
    state->queue.pop_front();
    job->stage = Job::Stage::running;
    lock.unlock();
    job->work(service);
    job->work = nullptr;  // what it owns goes here, not under the lock
    lock.lock();
    job->stage = Job::Stage::done;
    job->finished.notify_one();
    if (!state->goesOnLk(*job)) return;
  }
}

SecretWorkers::End SecretWorkers::run(Work work, SecretCall::Clock::time_point deadline) {
  const auto job = std::make_shared<Job>();
  job->work = std::move(work);
  std::unique_lock lock(state_->mutex);
  if (SecretCall::Clock::now() < state_->pausedUntil) return End::refused;
  state_->ensureServerLk();
  state_->queue.push_back(job);
  state_->wake.notify_one();
  const auto isDone = [&] { return job->stage == Job::Stage::done; };
  if (job->finished.wait_until(lock, deadline, isDone)) return End::done;
  if (!SecretServicePlace::isPrompting()) state_->pausedUntil = deadlineAfter(state_->pause);
  if (job->stage == Job::Stage::queued) {
    std::erase(state_->queue, job);
    return End::late;
  }
  job->isAbandoned = true;
  ++state_->abandoned;
  state_->hasServer = false;
  if (!state_->queue.empty()) state_->ensureServerLk();
  return End::late;
}

}  // namespace velum

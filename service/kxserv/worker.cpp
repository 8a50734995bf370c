#include "worker.h"

#include <future>

namespace kxserv {

Worker::Worker() : thread_([this] { Run(); }) {}

Worker::~Worker() { Stop(nullptr); }

void Worker::Post(Job job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    jobs_.push_back(std::move(job));
  }
  ready_.notify_one();
}

void Worker::RunAndWait(const Job& job) {
  std::promise<void> done;
  Post([&] {
    job();
    done.set_value();
  });
  done.get_future().wait();
}

void Worker::Stop(const Job& last) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stopping_) {
      stopping_ = true;
      last_ = last;
      jobs_.clear();
    }
  }
  ready_.notify_one();
  if (thread_.joinable()) thread_.join();
}

std::size_t Worker::Queued() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return jobs_.size();
}

void Worker::Run() {
  for (;;) {
    Job job;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ready_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (stopping_) {
        job = std::move(last_);
        lock.unlock();
        if (job) job();
        return;
      }
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
  }
}

}  // namespace kxserv

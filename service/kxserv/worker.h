// The one thread that calls the plug-in. Every entry point runs here, one job
// after another, so the plug-in keeps the single-threaded world it was
// written for while the connection loop serves any number of clients.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kxserv {

class Worker {
 public:
  using Job = std::function<void()>;

  Worker();
  // Stops (see Stop) and joins.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Queues a job; jobs run in the order posted. Ignored after Stop.
  void Post(Job job);
  // Runs `job` on the worker and waits for it.
  void RunAndWait(const Job& job);
  // Lets the running job finish, drops the queued ones, runs `last` (the
  // plug-in's exit) and joins the thread.
  void Stop(const Job& last);
  std::size_t Queued() const;

 private:
  void Run();

  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Job> jobs_;
  bool stopping_ = false;
  Job last_;
  std::thread thread_;
};

}  // namespace kxserv

// The connection loop of kxserv: one epoll thread that owns the listening
// socket, every client connection, the spool watch and the signals, and one
// Worker that runs the plug-in. A client never waits for another: reads and
// writes are non-blocking, each client has its own buffers and deadlines,
// and a reply is handed back from the worker through an eventfd.
//
// Per client, requests are answered in the order sent, one at a time; the
// next frame is read from the buffer when the previous reply is queued.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "config.h"
#include "console_login.h"
#include "lib/plugin_loader.h"
#include "requests.h"
#include "worker.h"

namespace kxserv {

class Server {
 public:
  // `plugin` must have been initialised on `worker` already.
  Server(const kxhost::PluginEntryPoints& plugin, Worker* worker,
         std::string config_path, Config config);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds the socket (replacing a stale one), starts the spool watch and
  // blocks SIGTERM, SIGINT and SIGHUP for the signalfd. Throws
  // std::runtime_error.
  void Open(const std::string& socket_path);
  // Serves until SIGTERM or SIGINT. The request running on the worker then
  // finishes and its reply is sent (for up to a second), queued requests are
  // dropped with their clients, and `last` (the plug-in's exit) runs on the
  // worker before it stops.
  void Run(const Worker::Job& last);

  // Any thread: queues an event document for every subscriber.
  void Broadcast(const std::string& event_document);

 private:
  using Clock = std::chrono::steady_clock;
  struct Client {
    int fd = -1;
    uid_t uid = 0;
    std::string in;
    std::string out;
    std::size_t out_done = 0;  // bytes of `out` already written
    bool busy = false;         // a request of it is on the worker
    bool subscribed = false;
    bool closing = false;  // close once `out` is written
    // `out` is written and our side shut down: what the peer still sends
    // is read and dropped until it closes, so that closing never resets
    // the connection under a reply the peer has not read yet.
    bool draining = false;
    Clock::time_point drain_since;
    Clock::time_point last_read;    // or the last reply, when later
    Clock::time_point write_since;  // when `out` last became non-empty
  };
  struct Completion {
    std::uint64_t client;
    std::string reply;
  };

  // The functions taking a client id return false when they closed it (the
  // Client reference is then gone).
  void Accept();
  bool ReadFrom(std::uint64_t id);
  bool WriteTo(std::uint64_t id);
  bool NextRequest(std::uint64_t id);
  void Dispatch(std::uint64_t id, Client& client, const std::string& payload);
  bool Send(std::uint64_t id, const std::string& payload);
  // Sends an error reply and closes once it is written.
  bool Refuse(std::uint64_t id, const std::string& code,
              const std::string& text);
  void Close(std::uint64_t id, const std::string& why);
  void StartDrain(std::uint64_t id, Client& client);
  void UpdateInterest(std::uint64_t id, const Client& client);
  void DrainCompletions();
  void SweepTimeouts();
  void Signal();
  void Reload();
  void Wake();
  ServiceStatus Status() const;

  const kxhost::PluginEntryPoints plugin_;
  Worker* worker_;
  const std::string config_path_;
  Config config_;
  std::string socket_path_;
  int listen_fd_ = -1;
  int epoll_fd_ = -1;
  int event_fd_ = -1;
  int signal_fd_ = -1;
  int spool_fd_ = -1;
  bool stopping_ = false;
  std::uint64_t next_id_ = 1;
  std::uint64_t requests_ = 0;
  std::uint64_t refused_ = 0;
  std::map<std::uint64_t, Client> clients_;
  // Used by service requests on the worker thread only.
  ConsoleLogins console_logins_;

  std::mutex mutex_;  // guards the two queues below
  std::deque<Completion> completions_;
  std::deque<std::string> events_;
};

}  // namespace kxserv

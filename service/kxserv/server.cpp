#include "server.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <vector>

#include "common/frame.h"
#include "lib/daemon_signals.h"
#include "log.h"
#include "notices.h"
#include "peer.h"
#include "spool.h"

namespace kxserv {
namespace {

constexpr std::uint64_t kListenTag = ~std::uint64_t{0};
constexpr std::uint64_t kEventTag = kListenTag - 1;
constexpr std::uint64_t kSignalTag = kListenTag - 2;
constexpr std::uint64_t kSpoolTag = kListenTag - 3;
constexpr int kTickMs = 100;
// A subscriber that lets this much pile up is not reading; it is dropped
// rather than let the service's memory grow.
constexpr std::size_t kMaxPending = 16u << 20;

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

void Add(int epoll_fd, int fd, std::uint64_t tag, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = tag;
  if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
    throw std::runtime_error(Errno("epoll_ctl"));
  }
}

std::string SubscribedReply() {
  return "<reply>\n  <result>1</result>\n  <subscribed>1</subscribed>\n"
         "</reply>\n";
}

}  // namespace

Server::Server(const kxhost::PluginEntryPoints& plugin, Worker* worker,
               std::string config_path, Config config)
    : plugin_(plugin),
      worker_(worker),
      config_path_(std::move(config_path)),
      config_(std::move(config)) {}

Server::~Server() {
  for (auto& entry : clients_) close(entry.second.fd);
  for (int fd : {listen_fd_, epoll_fd_, event_fd_, signal_fd_, spool_fd_}) {
    if (fd >= 0) close(fd);
  }
}

void Server::Open(const std::string& socket_path) {
  socket_path_ = socket_path;
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) throw std::runtime_error(Errno("epoll_create1"));

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("socket path too long: " + socket_path);
  }
  std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
  // A socket file left by a service that died is replaced; one that still
  // answers belongs to a running service, which is not taken over.
  try {
    close(ConnectTo(socket_path));
    throw std::runtime_error("another kxserv is serving " + socket_path);
  } catch (const SocketError&) {
  }
  // var/run is the service's own; a fresh installation need not have it.
  boost::system::error_code made;
  boost::filesystem::create_directories(
      boost::filesystem::path(socket_path).parent_path(), made);
  struct stat info;
  if (lstat(socket_path.c_str(), &info) == 0) {
    if (!S_ISSOCK(info.st_mode)) {
      throw std::runtime_error(socket_path + " exists and is not a socket");
    }
    unlink(socket_path.c_str());
  }
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error(Errno("socket"));
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) !=
      0) {
    throw std::runtime_error(Errno("bind " + socket_path));
  }
  // Anyone may connect; the peer's credentials decide who may talk, and a
  // refused peer is told why.
  chmod(socket_path.c_str(), 0666);
  if (listen(listen_fd_, 128) != 0) throw std::runtime_error(Errno("listen"));
  Add(epoll_fd_, listen_fd_, kListenTag, EPOLLIN);

  event_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (event_fd_ < 0) throw std::runtime_error(Errno("eventfd"));
  Add(epoll_fd_, event_fd_, kEventTag, EPOLLIN);

  const sigset_t signals = kxhost::DaemonSignals();
  signal_fd_ = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signal_fd_ < 0) throw std::runtime_error(Errno("signalfd"));
  Add(epoll_fd_, signal_fd_, kSignalTag, EPOLLIN);

  spool_fd_ = WatchSpool();
  Add(epoll_fd_, spool_fd_, kSpoolTag, EPOLLIN);
  // Documents that arrived while the service was down.
  worker_->Post([this] { DrainSpool(plugin_); });
}

void Server::Run(const Worker::Job& last) {
  std::vector<epoll_event> ready(64);
  while (!stopping_) {
    const int count = epoll_wait(epoll_fd_, ready.data(),
                                 static_cast<int>(ready.size()), kTickMs);
    if (count < 0 && errno != EINTR) {
      Log(LOG_ERR, Errno("epoll_wait"));
      break;
    }
    for (int i = 0; i < count; ++i) {
      const std::uint64_t tag = ready[i].data.u64;
      const std::uint32_t events = ready[i].events;
      if (tag == kListenTag) {
        Accept();
      } else if (tag == kEventTag) {
        std::uint64_t ignored;
        while (read(event_fd_, &ignored, sizeof ignored) > 0) {
        }
      } else if (tag == kSignalTag) {
        Signal();
      } else if (tag == kSpoolTag) {
        if (SpoolEventsPending(spool_fd_)) {
          worker_->Post([this] { DrainSpool(plugin_); });
        }
      } else if (clients_.count(tag)) {
        if ((events & EPOLLOUT) && !WriteTo(tag)) continue;
        if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) ReadFrom(tag);
      }
    }
    DrainCompletions();
    SweepTimeouts();
  }

  // Stopping: no new clients; the running request finishes on the worker.
  close(listen_fd_);
  listen_fd_ = -1;
  unlink(socket_path_.c_str());
  worker_->Stop(last);
  DrainCompletions();
  const auto deadline = Clock::now() + std::chrono::seconds(1);
  for (;;) {
    std::vector<std::uint64_t> pending;
    for (const auto& entry : clients_) {
      if (entry.second.out.size() > entry.second.out_done) {
        pending.push_back(entry.first);
      }
    }
    if (pending.empty() || Clock::now() > deadline) break;
    for (auto id : pending) WriteTo(id);
    epoll_wait(epoll_fd_, ready.data(), static_cast<int>(ready.size()), 10);
  }
  std::vector<std::uint64_t> ids;
  for (const auto& entry : clients_) ids.push_back(entry.first);
  for (auto id : ids) Close(id, "");
  Log(LOG_INFO, "stopped");
}

void Server::Broadcast(const std::string& event_document) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event_document);
  }
  Wake();
}

void Server::Wake() {
  const std::uint64_t one = 1;
  // A full counter still wakes the loop; nothing to do on failure.
  if (write(event_fd_, &one, sizeof one) < 0) {
  }
}

void Server::Accept() {
  for (;;) {
    const int fd =
        accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        Log(LOG_ERR, Errno("accept"));
      }
      return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
      Log(LOG_ERR, Errno("SO_PEERCRED"));
      close(fd);
      continue;
    }
    const std::uint64_t id = next_id_++;
    Client& client = clients_[id];
    client.fd = fd;
    client.uid = peer.uid;
    client.last_read = Clock::now();
    try {
      Add(epoll_fd_, fd, id, EPOLLIN);
    } catch (const std::runtime_error& e) {
      Log(LOG_ERR, e.what());
      close(fd);
      clients_.erase(id);
      continue;
    }
    if (static_cast<int>(clients_.size()) > config_.max_clients) {
      Log(LOG_WARNING,
          "refused a connection from uid " + std::to_string(peer.uid) + ": " +
              std::to_string(config_.max_clients) + " clients are connected");
      Refuse(id, "busy",
             "the service already serves its limit of " +
                 std::to_string(config_.max_clients) + " clients");
      continue;
    }
    if (!MayTalk(peer.uid, peer.gid, config_.admin_group)) {
      ++refused_;
      Log(LOG_WARNING,
          "refused a connection from uid " + std::to_string(peer.uid) +
              " (pid " + std::to_string(peer.pid) +
              "): not root and not a member of group " + config_.admin_group);
      Refuse(id, "refused",
             "uid " + std::to_string(peer.uid) +
                 " may not use this service: only root and members of "
                 "group " +
                 config_.admin_group + " may");
    }
  }
}

bool Server::ReadFrom(std::uint64_t id) {
  Client& client = clients_.at(id);
  if (client.draining) {
    char scrap[4096];
    for (;;) {
      const ssize_t n = read(client.fd, scrap, sizeof scrap);
      if (n > 0) continue;
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
      Close(id, "");
      return false;
    }
  }
  if (client.busy || client.closing) return true;
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(client.fd, buffer, sizeof buffer);
    if (n > 0) {
      client.in.append(buffer, static_cast<std::size_t>(n));
      client.last_read = Clock::now();
      // Never hold more than one whole request plus its header.
      if (client.in.size() > config_.max_request + kFrameHeader) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    // End of stream or an error: whatever is in the buffer is processed
    // first (a client may send and then shut down its side).
    if (!NextRequest(id)) return false;
    Client& still = clients_.at(id);
    if (still.busy) return true;
    Close(id, still.in.empty()
                  ? ""
                  : "connection ended inside a frame (" +
                        std::to_string(still.in.size()) + " bytes unread)");
    return false;
  }
  return NextRequest(id);
}

bool Server::NextRequest(std::uint64_t id) {
  for (;;) {
    Client& client = clients_.at(id);
    if (client.busy || client.closing || client.in.size() < kFrameHeader) {
      return true;
    }
    const std::uint32_t size = FrameLength(client.in.data());
    if (size > config_.max_request) {
      Log(LOG_WARNING, "client uid " + std::to_string(client.uid) +
                           " sent a frame of " + std::to_string(size) +
                           " bytes, above the limit of " +
                           std::to_string(config_.max_request));
      return Refuse(id, "too_large",
                    "request of " + std::to_string(size) +
                        " bytes is above the limit of " +
                        std::to_string(config_.max_request) + " bytes");
    }
    if (client.in.size() < kFrameHeader + size) return true;
    const std::string payload = client.in.substr(kFrameHeader, size);
    client.in.erase(0, kFrameHeader + size);
    Dispatch(id, client, payload);
    if (!clients_.count(id)) return false;
  }
}

void Server::Dispatch(std::uint64_t id, Client& client,
                      const std::string& payload) {
  ++requests_;
  boost::shared_ptr<kxhost::XmlDocument> document;
  try {
    document = kxhost::ParseXml(payload);
  } catch (const std::runtime_error& e) {
    Send(id, ErrorReply("bad_document",
                        std::string("the request is not an XML document: ") +
                            e.what()));
    return;
  }
  if (IsServiceRequest(*document) && ServiceCommand(*document) == "subscribe") {
    client.subscribed = true;
    Send(id, SubscribedReply());
    return;
  }
  client.busy = true;
  UpdateInterest(id, client);
  // Only `state` shows it; gathering it costs a file read.
  const ServiceStatus status =
      IsServiceRequest(*document) ? Status() : ServiceStatus();
  ServiceContext context{status, &console_logins_,
                         config_.console_login_seconds};
  worker_->Post([this, id, document, context] {
    std::string reply;
    // The plug-in may let exceptions through; one request fails, the
    // service goes on.
    try {
      reply = IsServiceRequest(*document)
                  ? RunServiceRequest(plugin_, *document, context)
                  : RunPluginRequest(plugin_, document);
    } catch (const std::exception& e) {
      Log(LOG_ERR, std::string("the plug-in threw: ") + e.what());
      reply = ErrorReply("plugin_exception",
                         std::string("the plug-in threw: ") + e.what());
    } catch (...) {
      Log(LOG_ERR, "the plug-in threw a non-standard exception");
      reply = ErrorReply("plugin_exception",
                         "the plug-in threw a non-standard exception");
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      completions_.push_back(Completion{id, std::move(reply)});
    }
    Wake();
  });
}

bool Server::Send(std::uint64_t id, const std::string& payload) {
  Client& client = clients_.at(id);
  if (client.out.size() == client.out_done) {
    client.out.clear();
    client.out_done = 0;
    client.write_since = Clock::now();
  }
  client.out += Frame(payload);
  if (client.out.size() - client.out_done > kMaxPending) {
    Close(id, "more than " + std::to_string(kMaxPending) +
                  " bytes of replies and events left unread");
    return false;
  }
  return WriteTo(id);
}

bool Server::Refuse(std::uint64_t id, const std::string& code,
                    const std::string& text) {
  if (!Send(id, ErrorReply(code, text))) return false;
  Client& client = clients_.at(id);
  client.closing = true;
  client.in.clear();
  if (client.out.size() == client.out_done) {
    StartDrain(id, client);
  } else {
    UpdateInterest(id, client);
  }
  return true;
}

void Server::StartDrain(std::uint64_t id, Client& client) {
  shutdown(client.fd, SHUT_WR);
  client.draining = true;
  client.drain_since = Clock::now();
  UpdateInterest(id, client);
}

bool Server::WriteTo(std::uint64_t id) {
  Client& client = clients_.at(id);
  while (client.out_done < client.out.size()) {
    const ssize_t n =
        send(client.fd, client.out.data() + client.out_done,
             client.out.size() - client.out_done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      client.out_done += static_cast<std::size_t>(n);
      client.write_since = Clock::now();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    Close(id, "");
    return false;
  }
  if (client.out_done == client.out.size()) {
    client.out.clear();
    client.out_done = 0;
    if (client.closing && !client.draining) {
      StartDrain(id, client);
      return true;
    }
  }
  UpdateInterest(id, client);
  return true;
}

void Server::UpdateInterest(std::uint64_t id, const Client& client) {
  epoll_event event{};
  event.data.u64 = id;
  if (client.draining || (!client.busy && !client.closing)) {
    event.events |= EPOLLIN;
  }
  if (client.out.size() > client.out_done) event.events |= EPOLLOUT;
  epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, client.fd, &event);
}

void Server::Close(std::uint64_t id, const std::string& why) {
  auto it = clients_.find(id);
  if (it == clients_.end()) return;
  if (!why.empty()) {
    Log(LOG_WARNING,
        "dropped client uid " + std::to_string(it->second.uid) + ": " + why);
  }
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
  close(it->second.fd);
  clients_.erase(it);
}

void Server::DrainCompletions() {
  std::deque<Completion> completions;
  std::deque<std::string> events;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    completions.swap(completions_);
    events.swap(events_);
  }
  for (auto& done : completions) {
    // The client may have gone while its request ran.
    if (!clients_.count(done.client)) continue;
    Client& client = clients_.at(done.client);
    client.busy = false;
    // The silence that may time a client out starts with its answer: the
    // time its request waited and ran is the service's, not the client's.
    client.last_read = Clock::now();
    if (!Send(done.client, done.reply)) continue;
    if (stopping_) continue;
    // Data that arrived while it was busy is still in the socket.
    ReadFrom(done.client);
  }
  for (const auto& event : events) {
    std::vector<std::uint64_t> subscribers;
    for (const auto& entry : clients_) {
      if (entry.second.subscribed && !entry.second.closing) {
        subscribers.push_back(entry.first);
      }
    }
    for (auto id : subscribers) Send(id, event);
  }
}

void Server::SweepTimeouts() {
  const auto now = Clock::now();
  const auto read_limit = std::chrono::milliseconds(config_.read_timeout_ms);
  const auto write_limit = std::chrono::milliseconds(config_.write_timeout_ms);
  std::vector<std::uint64_t> silent, stalled, drained;
  for (const auto& entry : clients_) {
    const Client& client = entry.second;
    if (client.draining) {
      if (now - client.drain_since > std::chrono::seconds(1)) {
        drained.push_back(entry.first);
      }
      continue;
    }
    if (client.out.size() > client.out_done) {
      if (now - client.write_since > write_limit)
        stalled.push_back(entry.first);
      continue;
    }
    if (!client.busy && !client.subscribed && !client.closing &&
        now - client.last_read > read_limit) {
      silent.push_back(entry.first);
    }
  }
  for (auto id : drained) Close(id, "");
  for (auto id : stalled) {
    Close(id, "took nothing of its replies for " +
                  std::to_string(config_.write_timeout_ms) + " ms");
  }
  for (auto id : silent) {
    const bool partial = !clients_.at(id).in.empty();
    Log(LOG_WARNING,
        "client uid " + std::to_string(clients_.at(id).uid) +
            (partial ? " left a frame unfinished" : " sent nothing") + " for " +
            std::to_string(config_.read_timeout_ms) + " ms");
    Refuse(id, "timeout",
           std::string(partial ? "the request frame was not completed"
                               : "no request arrived") +
               " within " + std::to_string(config_.read_timeout_ms) + " ms");
  }
}

void Server::Signal() {
  signalfd_siginfo info;
  while (read(signal_fd_, &info, sizeof info) == sizeof info) {
    if (info.ssi_signo == SIGHUP) {
      Reload();
    } else {
      Log(LOG_INFO, std::string("stopping on ") + strsignal(info.ssi_signo));
      stopping_ = true;
    }
  }
}

void Server::Reload() {
  try {
    config_ = ReadConfig(config_path_);
    Log(LOG_INFO, "configuration re-read from " + config_path_ + " (group " +
                      config_.admin_group + ")");
  } catch (const ConfigError& e) {
    Log(LOG_ERR, std::string("configuration not changed: ") + e.what());
  }
}

ServiceStatus Server::Status() const {
  ServiceStatus status;
  status.clients = static_cast<int>(clients_.size());
  for (const auto& entry : clients_)
    status.subscribers += entry.second.subscribed;
  status.requests = requests_;
  status.refused = refused_;
  status.station_blocked = ReadStationBlock(&status.block_reason);
  return status;
}

}  // namespace kxserv

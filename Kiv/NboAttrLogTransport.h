#pragma once
// Kiv::NboAttrLog transport: the connections that carry the attribute log.
//
// A Channel is one connected Unix-domain stream socket, non-blocking, driven by a Kiv::Activity,
// with an Out (this side's adapters write) and an In (the peer's records are applied). An
// Endpoint holds the entities a process serves and reads and its channels; a Server listens and
// accepts any number of peers; a Client connects and reconnects. On every new connection the
// writing side re-sends each served entity (creation record, every attribute, every member)
// between sync modes 1 and 2; the reading side removes the members that the writer no longer has
// at the end of each collection walk, so it ends equal to the writer.

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Kiv/Activity.h"
#include "Kiv/NboAttrLogIn.h"
#include "Kiv/NboAttrLogOut.h"

namespace Kiv::NboAttrLog {

// Roots a peer may have made for its connection (Endpoint::Peers::writers).
inline constexpr std::size_t kMaxCreatedRoots = 1024;

class Endpoint;

// One connected socket with its Out and In. Owned by its Endpoint; closing it (peer gone, bad
// input, local request) is reported to the endpoint from a fresh activity round, never from
// inside the handler that found it.
class Channel {
 public:
  // Bytes taken from the socket at once: what the input holds beyond one record.
  static constexpr std::size_t readChunk = 64 * 1024;

  Channel(Endpoint& endpoint, int fd, String8 description);
  ~Channel();
  Channel(Channel const&) = delete;
  Channel& operator=(Channel const&) = delete;

  Out& out() noexcept { return out_; }
  In& in() noexcept { return in_; }
  Endpoint& endpoint() const noexcept { return endpoint_; }
  String8 const& description() const noexcept { return description_; }
  bool open() const noexcept { return fd_ >= 0; }
  // Closes the socket; the endpoint hears of it in the next round. `error` empty: an orderly end.
  void close(String8 const& error);
  // Closes after `call` ("recv", "send") failed with `err`. A peer that went away without
  // closing (a killed process resets the connection) ends the stream like an orderly close: a
  // warning, not an error of this end; any other failure is an error.
  void closeAfter(char const* call, int err);
  String8 const& error() const noexcept { return error_; }

  // The change being applied from this channel, so that its writing adapters do not echo it.
  bool flowIn(Entity const* e, AttributeId id) const noexcept {
    return flowInEntity_ == e && flowInId_ == id;
  }

  // The root entity a peer's creation record of (type, argument) binds to: the endpoint's read
  // root of that type and name, or one made for this connection (at most kMaxCreatedRoots).
  Ptr<Entity> bindRoot(TypeInfo const& type, String8 const& argument);
  // The roots made for this connection's peer; they go with the channel.
  std::vector<Ptr<Entity>> const& created() const noexcept { return created_; }

 private:
  friend class Out;
  friend class SaBase;
  void onEvents(std::uint32_t events);
  void watchOut(bool on);

  Endpoint& endpoint_;
  int fd_;
  String8 description_;
  String8 error_;
  Out out_;
  In in_;
  FdWatch watch_;
  bool watchingOut_ = false;
  Entity const* flowInEntity_ = nullptr;
  AttributeId flowInId_ = 0;
  Activity::Id closeTimer_ = 0;
  std::vector<Ptr<Entity>> created_;
};

// The entities a process serves (writes) and reads over its channels, and the channels.
//
// `serve(entity)`: every channel gets an adapter for it (creation record, then every change).
// The served entities are this side's to write: a peer's creation record that names one (type
// and name) binds it read-only, and every record the peer then addresses to it is refused with
// "write-update from readonly proxy: " and the entity's name.
// `read(entity)`: a creation record from the peer with the entity's type name and name binds to
// it instead of making a new entity (it wins over a served entity of that name); records of
// types not registered are errors. Entities the peer creates that match no read root are made
// for its connection (`Channel::created()`) and go with it.
//
// Every refusal closes the peer's connection, with the error counted and kept (errors(),
// lastError()); nothing of the refused record, or of its transaction, is applied.
class Endpoint {
 public:
  // What peers may send to this endpoint.
  enum class Peers : std::uint8_t {
    // Peers write: their roots bind to the read roots, or are made for their connection, and
    // their records change them.
    writers,
    // Peers only read what this endpoint serves: they may send sync modes and bind the served
    // entities (read-only), nothing else. A creation record of any other root is refused with
    // "create from readonly peer: " and its type and name, a transaction marker with
    // "transaction from readonly peer".
    readers,
  };

  struct Options {
    std::size_t highWater = 16 * 1024;
    double reconnectSeconds = 0.05;  // Client: the delay before a new connection attempt
    Peers peers = Peers::writers;
    // Per connection: identifiers the peer may hold announced at once ("too many entities on one
    // connection: N"), and bytes of its open transaction ("transaction too large: over N").
    std::size_t maxEntities = 1u << 16;
    std::size_t maxPendingBytes = 16u << 20;
    // Server: connections open at once; one more is closed as it comes ("too many connections").
    std::size_t maxConnections = 64;
    // Server: who may connect. The socket file is the owner's alone (mode 0600) unless a group
    // is given: then it belongs to that group and is open to it (0660). The process must be a
    // member of the group, or privileged.
    std::optional<gid_t> group = std::nullopt;
  };

  explicit Endpoint(Activity& activity, Options options);
  virtual ~Endpoint();
  Endpoint(Endpoint const&) = delete;
  Endpoint& operator=(Endpoint const&) = delete;

  Activity& activity() const noexcept { return activity_; }
  Options const& options() const noexcept { return options_; }
  void serve(Ptr<Entity> const& entity);
  void read(Ptr<Entity> const& entity);
  // The read root, or the served entity, of that type and name; null if none.
  Ptr<Entity> readRoot(std::string_view typeName, std::string_view name) const;
  Ptr<Entity> servedRoot(std::string_view typeName, std::string_view name) const;
  // The roots made for peers, over the channels (a closed one holds them until it is gone, in
  // the next activity round).
  std::vector<Ptr<Entity>> created() const;

  std::vector<Channel*> channels() const;
  // Makes a channel for an already connected socket (owned from now on) and attaches the served
  // entities to it.
  Channel& adopt(int fd, String8 const& description);
  // Connections made so far (the first one included), and errors seen on them (also traced at
  // error level).
  std::uint64_t connections() const noexcept { return connections_; }
  std::uint64_t errors() const noexcept { return errors_; }
  String8 const& lastError() const noexcept { return lastError_; }
  // True when some channel has received the peer's full state (sync mode 2) since it opened.
  bool synced() const;
  // The most identifiers, and bytes of input, that one connection has held (In::peakEntities,
  // In::peakBytesHeld), over every connection so far.
  std::size_t peakEntities() const;
  std::size_t peakBytesHeld() const;

  // Called by a channel (deferred) once it has closed.
  void channelClosed(Channel* channel);
  void errorIs(String8 const& error);

 protected:
  virtual void onChannelClosed() {}
  void channelsClear() { channels_.clear(); }
  // Attaches every served entity to a new channel's `out`, between sync modes 1 and 2.
  void attachServed(Out& out);
  // Attaches one served entity: a new adapter, or (Client) its adapter re-mounted.
  virtual void attachOne(Ptr<Entity> const& entity, Out& out);
  std::vector<Ptr<Entity>> served_;

 private:
  Activity& activity_;
  Options options_;
  std::vector<Ptr<Entity>> readRoots_;
  std::vector<std::unique_ptr<Channel>> channels_;
  std::size_t closedPeakEntities_ = 0;  // peaks of the channels gone
  std::size_t closedPeakBytesHeld_ = 0;
  std::uint64_t connections_ = 0;
  std::uint64_t errors_ = 0;
  String8 lastError_;
};

// Listens on a Unix-domain socket path (replacing a stale socket file) and accepts peers, up to
// Options::maxConnections at once. The socket file is owner-only unless Options::group is given.
// Raises Jorv::RuntimeException with the path and errno's text when it cannot listen. Removes the
// path when destroyed.
class Server : public Endpoint {
 public:
  Server(Activity& activity, std::string path, Options options);
  Server(Activity& activity, std::string path) : Server(activity, std::move(path), Options{}) {}
  ~Server() override;

 private:
  void onAccept();
  std::string path_;
  int listenFd_ = -1;
  FdWatch watch_;
};

// Connects to a Unix-domain socket path and keeps one connection: after a loss (or while the
// server is absent) it tries again every `reconnectSeconds`. Served entities keep their adapters
// across connections; each new connection re-mounts them (doRemountSelf).
//
// While it has no connection it says why, once per reason (waitReason()): the server not there
// (yet) is traced as progress; anything else, above all "connection to <path>: permission
// denied" (the socket's mode or group leaves this process out), is an error of the endpoint
// (errors(), lastError()). It goes on trying, since the server may come back with other rights.
class Client : public Endpoint {
 public:
  Client(Activity& activity, std::string path, Options options);
  Client(Activity& activity, std::string path) : Client(activity, std::move(path), Options{}) {}
  ~Client() override;
  Channel* channel() const;
  // Why the last attempt to connect failed; empty once a connection has been made.
  String8 const& waitReason() const noexcept { return waitReason_; }

 private:
  void tryConnect();
  void waitFor(String8 const& why, bool error);
  void retryLater();
  void onChannelClosed() override;
  void attachOne(Ptr<Entity> const& entity, Out& out) override;
  std::string path_;
  String8 waitReason_;
  Activity::Id retryTimer_ = 0;
  std::unordered_map<Entity const*, Ptr<SaBase>> adapters_;
};

// A connected pair of sockets for in-process use (tests): both ends non-blocking.
void socketPair(int fds[2]);

}  // namespace Kiv::NboAttrLog

#pragma once
// The wire of the wake-up channel between a table writer and its reader processes: a Unix-domain
// stream socket named "kick" in the table's root directory. The writer listens
// (Quarn/WriterKickSm.h), each reader process connects once (Quarn/ReaderKickSm.h).
//
// The connection carries one message, from the writer, right after it accepts:
//   offset 0  u32 type     1 = welcome
//   offset 4  u32 version  2; anything else is a protocol error and closes the connection
//   offset 8  u64 value    the reader's acknowledgement slot in the kick area, or noSlot when
//                          every slot is taken (the reader is then not counted for pruning)
// together with three descriptors (SCM_RIGHTS): the kick area (Quarn/KickArea.h), the exclusive
// wake-up eventfd and the broadcast wake-up eventfd. A reader sends nothing: acknowledgements and
// sleep go through the kick area, so a write costs the writer no message per reader. From then
// on the connection only tells each side that the other is gone (hangup); any byte a reader
// sends is a protocol error that closes its connection.

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Kiv/Activity.h"

namespace Quarn::Kick {

enum class Type : std::uint32_t { welcome = 1 };

struct Message {
  Type type;
  std::uint32_t version = protocolVersion;
  std::uint64_t value;

  static constexpr std::uint32_t protocolVersion = 2;
  static constexpr std::uint64_t noSlot = 0xFFFFFFFFu;
};
static_assert(sizeof(Message) == 16, "the kick message is a fixed 16-byte wire format");

// Descriptors that travel with the welcome, in this order.
enum Descriptor : std::size_t { area = 0, exclusiveWake = 1, broadcastWake = 2, descriptorCount = 3 };

// The socket file of the table rooted at `rootPath`.
std::string socketPath(std::string const& rootPath);

// A socket address for `path`. Paths too long for sockaddr_un are reached through the
// /proc/self/fd link of their directory, which stays open as long as the address lives.
class Address {
 public:
  explicit Address(std::string const& path);
  ~Address();
  Address(Address const&) = delete;
  Address& operator=(Address const&) = delete;

  bool valid() const noexcept { return length_ != 0; }  // false: the directory cannot be opened
  sockaddr const* get() const noexcept { return reinterpret_cast<sockaddr const*>(&addr_); }
  socklen_t length() const noexcept { return length_; }

 private:
  sockaddr_un addr_{};
  socklen_t length_ = 0;
  int dirFd_ = -1;
};

// Descriptors received with a message; those not taken are closed with this object.
class Descriptors {
 public:
  Descriptors() { fds_.fill(-1); }
  ~Descriptors();
  Descriptors(Descriptors const&) = delete;
  Descriptors& operator=(Descriptors const&) = delete;

  // The descriptor at `i` (-1 when it did not come); it is the caller's from now on.
  int take(std::size_t i) noexcept;
  std::size_t count() const noexcept;

 private:
  friend class Connection;
  std::array<int, descriptorCount> fds_;
};

// One end of a connected, non-blocking stream socket on an activity. Owns the fd. With a message
// handler (a reader's end) it receives the welcome with its descriptors; without one (a writer's
// end) any byte received is a protocol error. `onHangup` is called once when the peer goes away
// or breaks the protocol. Either handler may destroy the Connection.
class Connection {
 public:
  using MessageHandler = std::function<void(Message const&, Descriptors&)>;
  using HangupHandler = std::function<void()>;

  Connection(int fd, Kiv::Activity& activity, MessageHandler onMessage, HangupHandler onHangup);
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  // Sends `message` with `fds` (at most descriptorCount) without blocking. False when it could
  // not be sent whole (the socket of a fresh connection always has room for it).
  bool send(Message const& message, int const* fds, std::size_t count);
  int fd() const noexcept { return fd_; }

 private:
  void handleEvents(std::uint32_t events);
  void hangup();

  int fd_;
  MessageHandler onMessage_;
  HangupHandler onHangup_;
  Kiv::FdWatch watch_;
  unsigned char in_[sizeof(Message)];
  std::size_t inFill_ = 0;
  bool welcomed_ = false;
  Descriptors received_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Quarn::Kick

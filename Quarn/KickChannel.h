#pragma once
// The wire of the wake-up channel between a table writer and its reader processes: a Unix-domain
// stream socket named "kick" in the table's root directory. The writer listens
// (Quarn/WriterKickSm.h), each reader process connects once (Quarn/ReaderKickSm.h).
//
// Message format: fixed 16 bytes, host byte order (both ends run on one host):
//   offset 0  u32 type      1 = ack    reader -> writer: consumed up to `sequence`, awake
//                           2 = sleep  reader -> writer: consumed up to `sequence`, now waiting
//                                      for a kick; the writer kicks at once if it has already
//                                      appended past `sequence` (no lost wake-up)
//                           3 = kick   writer -> reader: new notifications, `sequence` is the
//                                      writer's last appended sequence
//   offset 4  u32 version   1; anything else is a protocol error and closes the connection
//   offset 8  u64 sequence
// Only the latest state matters, so a sender whose socket buffer is full keeps only its newest
// unsent message (latest wins) instead of queueing: the backlog of a connection is bounded by one
// message.

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Kiv/Activity.h"

namespace Quarn::Kick {

enum class Type : std::uint32_t { ack = 1, sleep = 2, kick = 3 };

struct Message {
  Type type;
  std::uint32_t version = protocolVersion;
  std::uint64_t sequence;

  static constexpr std::uint32_t protocolVersion = 1;
};
static_assert(sizeof(Message) == 16, "the kick message is a fixed 16-byte wire format");

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

// One end of a connected, non-blocking stream socket on an activity, framing messages. Owns the
// fd. `onMessage` gets each valid message; `onHangup` is called once when the peer goes away or
// breaks the protocol. Either handler may destroy the Connection.
class Connection {
 public:
  using MessageHandler = std::function<void(Message const&)>;
  using HangupHandler = std::function<void()>;

  Connection(int fd, Kiv::Activity& activity, MessageHandler onMessage, HangupHandler onHangup);
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  // Sends without blocking; a message that does not fit now waits (latest wins, see above).
  // Send errors are not reported here: a broken connection reports its hangup on the activity.
  void send(Message const& message);
  int fd() const noexcept { return fd_; }

 private:
  void handleEvents(std::uint32_t events);
  bool flush();  // true when nothing is left to send
  void hangup();

  int fd_;
  MessageHandler onMessage_;
  HangupHandler onHangup_;
  Kiv::FdWatch watch_;
  unsigned char in_[sizeof(Message)];
  std::size_t inFill_ = 0;
  unsigned char out_[sizeof(Message)];  // a partly sent message: its rest must go first
  std::size_t outDone_ = 0, outFill_ = 0;
  std::optional<Message> next_;  // newest message not started yet
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Quarn::Kick

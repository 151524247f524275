// The attribute log's reading side against bad input: every bad record is refused with a clear
// error before anything of it (or of its transaction) is applied.

#include "Kiv/NboAttrLog.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bidir/AttrLog.h"
#include "Jorv/Exception.h"
#include "support/ActivityWait.h"
#include "support/AttrLogRecords.h"
#include "support/Sanitizers.h"

namespace Bidir = Routing::Pim::Bidir;
namespace Log = Kiv::NboAttrLog;

namespace {

using Bytes = TestSupport::AttrLogRecords;

// In puts the header of the record in front of the errors found in it: compare the end.
::testing::AssertionResult endsWith(std::string const& text, std::string const& tail) {
  if (text.ends_with(tail)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "\"" << text << "\" does not end with \"" << tail << "\"";
}

// A clear-request collection "clr" (id 1) with member "red" (id 2).
Bytes base() {
  Bytes s;
  s.create("Routing::Pim::Bidir::ClearConfigColl", "clr", 1);
  s.record(258, 1, 0, [](Bytes& x) { x.str("red").u32(2); });
  return s;
}

struct NboAttrLogReader : ::testing::Test {
  Kiv::Activity act;
  Kiv::Ptr<Bidir::ClearConfigColl> clr = Bidir::clearConfigCollFactory("clr");
  Log::Endpoint end{act, Log::Endpoint::Options{}};
  Log::Channel* ch = nullptr;
  void SetUp() override {
    Bidir::attrLogTypesRegister();
    end.read(clr);
    int fds[2];
    Log::socketPair(fds);
    ::close(fds[1]);
    ch = &end.adopt(fds[0], "test");
  }
  // Feeds `s` and the end of the stream; the error text, or "" when all was accepted.
  std::string feed(Bytes const& s, bool endOfStream = true) {
    try {
      ch->in().feed(s.b);
      if (endOfStream) ch->in().endOfStream();
    } catch (std::exception const& e) {
      return e.what();
    }
    return "";
  }
  std::uint32_t counters() {
    auto red = clr->vrfClearConfig("red");
    return red ? red->countersCount() : 0xdead;
  }
};

TEST_F(NboAttrLogReader, RefusesEachKindOfBadRecordWithoutApplyingIt) {
  Bytes good = base();
  good.record(261, 2, 1, [](Bytes& x) { x.u32(5); });
  ASSERT_EQ(feed(good, false), "");
  ASSERT_EQ(counters(), 5u);

  using Add = std::function<void(Bytes&)>;
  std::pair<Add, char const*> const bad[] = {
      // A flags word above 3 in a group key: the key is not stored.
      {[](Bytes& s) { s.record(259, 2, 1, [](Bytes& x) { x.u32(4).u32(2).u32(0xef000001); }); },
       "MrouteClearFlags::value > 0x3 not allowed"},
      // An identifier nobody announced, and one announced under another parent.
      {[](Bytes& s) { s.record(261, 99, 1, [](Bytes& x) { x.u32(6); }); },
       "entity identifier out of range: 99"},
      {[](Bytes& s) { s.record(261, 2, 7, [](Bytes& x) { x.u32(6); }); },
       "entity identifier out of range: 2"},
      // A deletion whose key is longer than a VRF name may be.
      {[](Bytes& s) { s.record(-258, 1, 0, [](Bytes& x) { x.str(std::string(101, 'v')); }); },
       "VrfName::bytes > 100 not allowed"},
      // A value cut short inside its record, and a record with bytes left over: the error names
      // the record it was found in.
      {[](Bytes& s) { s.record(261, 2, 1, [](Bytes& x) { x.u8(0).u8(6); }); },
       "record (entity 2, parent 1, attribute 261, length 4): truncated record"},
      {[](Bytes& s) { s.record(260, 2, 1, [](Bytes& x) { x.u8(1).u8(0); }); },
       "attribute 260, length 4): bad token, expected 3"},
      {[](Bytes& s) { s.create("Routing::Pim::Bidir::Nothing", "x", 9); },
       "unknown type name: Routing::Pim::Bidir::Nothing"},
  };
  for (auto const& [add, error] : bad) {
    Bytes s;
    add(s);
    EXPECT_TRUE(endsWith(feed(s, false), error));
  }
  EXPECT_EQ(clr->vrfClearConfig("red")->groupKey(), Bidir::ClearConfig::GroupKey());
  EXPECT_EQ(counters(), 5u);
  EXPECT_EQ(clr->vrfClearConfigCount(), 1u);
}

TEST_F(NboAttrLogReader, StreamCutInsideATransactionOrARecordAppliesNothingOfIt) {
  Bytes s = base();
  s.marker(258, 1, 1);
  s.record(258, 1, 0, [](Bytes& x) { x.str("blue").u32(3); });
  s.record(261, 3, 1, [](Bytes& x) { x.u32(8); });
  s.record(-258, 1, 0, [](Bytes& x) { x.str("red"); });
  EXPECT_EQ(feed(s), "stream cut mid-transaction");
  EXPECT_FALSE(clr->vrfClearConfig("blue"));
  EXPECT_TRUE(clr->vrfClearConfig("red"));

  Bytes cut;
  cut.record(261, 2, 1, [](Bytes& x) { x.u32(8); });
  cut.b.pop_back();
  EXPECT_EQ(feed(cut), "stream cut mid-record");
  EXPECT_EQ(counters(), 0u);
}

TEST_F(NboAttrLogReader, GuardsAgainstReentryAndRemoteWritesToReadOnlyProxies) {
  ASSERT_EQ(feed(base(), false), "");
  Log::SaBase* red = ch->in().bound(2);
  ASSERT_TRUE(red);

  // A handler that applies another record to the adapter that is applying one.
  struct Reenter : Bidir::ClearConfig::NotifieeConst {
    Log::SaBase* sa;
    Log::In* in;
    std::string error;
    void onCountersCount() override {
      try {
        sa->handleAttrDeserialization(261, 0, 1, *in);
      } catch (Jorv::RuntimeException const& e) {
        error = e.what();
      }
    }
  };
  Kiv::Ptr<Reenter> n(new Reenter);
  n->sa = red;
  n->in = &ch->in();
  n->notifierIs(Kiv::Ptr<Bidir::ClearConfig const>(clr->vrfClearConfig("red")));
  Bytes s;
  s.record(261, 2, 1, [](Bytes& x) { x.u32(3); });
  EXPECT_EQ(feed(s, false), "");
  EXPECT_EQ(n->error, "entity reactor is already active");

  red->flagsIs(red->flags() | Log::SaBase::readOnlyProxy);
  Bytes t;
  t.record(261, 2, 1, [](Bytes& x) { x.u32(4); });
  EXPECT_EQ(feed(t, false), "write-update from readonly proxy: clr/red");
  EXPECT_EQ(counters(), 3u);
}

// A peer of an endpoint that serves "cfg" (member "blue") and "clr": a channel whose far end is
// closed, fed by hand.
struct ServingEndpoint : ::testing::Test {
  Kiv::Activity act;
  Kiv::Ptr<Bidir::ConfigColl> cfg = Bidir::configCollFactory("cfg");
  Kiv::Ptr<Bidir::ClearConfigColl> clr = Bidir::clearConfigCollFactory("clr");
  std::unique_ptr<Log::Endpoint> end;
  void SetUp() override {
    Bidir::attrLogTypesRegister();
    cfg->vrfConfigIs("blue")->groupExpiryIntervalIs(30);
    start(Log::Endpoint::Options{});
  }
  void start(Log::Endpoint::Options options) {
    end = std::make_unique<Log::Endpoint>(act, options);
    end->serve(cfg);
    end->serve(clr);
  }
  // Feeds `s` to a new channel; the error text, or "" when all was accepted.
  std::string feed(Bytes const& s) {
    int fds[2];
    Log::socketPair(fds);
    ::close(fds[1]);
    Log::Channel& ch = end->adopt(fds[0], "peer");
    try {
      ch.in().feed(s.b);
    } catch (std::exception const& e) {
      return e.what();
    }
    return "";
  }
  std::string state() {
    std::string s;
    for (auto const& c : cfg->vrfConfigIter()) {
      s += c.vrfName().toString() + "=" + std::to_string(c.groupExpiryInterval()) + ";";
    }
    return s + std::to_string(clr->vrfClearConfigCount());
  }
};

// A killed peer leaves what it was sent unread, and its end resets the connection: that ends the
// channel like an orderly close, without counting as an error of this end.
TEST_F(ServingEndpoint, APeerThatWentAwayWithoutClosingIsNoError) {
  int fds[2];
  Log::socketPair(fds);
  Log::Channel& ch = end->adopt(fds[0], "peer");
  ASSERT_TRUE(TestSupport::runUntil(act, [&] { return ch.out().bytesWritten() > 0; }));
  ::close(fds[1]);
  ASSERT_TRUE(TestSupport::runUntil(act, [&] { return end->channels().empty(); }));
  EXPECT_EQ(end->errors(), 0u) << end->lastError();
}

TEST_F(ServingEndpoint, PeerWritesToServedEntitiesAreRefusedWithNothingApplied) {
  std::string const before = state();
  auto served = [](auto const& add) {
    Bytes s;
    s.create("Routing::Pim::Bidir::ConfigColl", "cfg", 1);
    add(s);
    return s;
  };
  // A new member, a member's removal, an attribute of the collection, and the same inside a
  // transaction: each is a write to the served collection.
  std::function<void(Bytes&)> const writes[] = {
      [](Bytes& s) { s.record(258, 1, 0, [](Bytes& x) { x.str("red").u32(2); }); },
      [](Bytes& s) { s.record(-258, 1, 0, [](Bytes& x) { x.str("blue"); }); },
      [](Bytes& s) { s.record(6, 1, 0, [](Bytes& x) { x.u8(1); }); },
      [](Bytes& s) {
        s.marker(258, 1, 1);
        s.record(258, 1, 0, [](Bytes& x) { x.str("blue").u32(2); });
        s.record(259, 2, 1, [](Bytes& x) { x.u8(0).u8(9); });
        s.marker(258, 1, 3);
      },
  };
  for (auto const& write : writes) {
    EXPECT_EQ(feed(served(write)), "write-update from readonly proxy: cfg");
  }
  EXPECT_EQ(state(), before);
  EXPECT_TRUE(end->created().empty());
}

TEST_F(ServingEndpoint, ReadingPeersMaySendSyncModesAndBindWhatIsServedButNothingElse) {
  start(Log::Endpoint::Options{.peers = Log::Endpoint::Peers::readers});
  Bytes reader;
  reader.syncMode(1).create("Routing::Pim::Bidir::ClearConfigColl", "clr", 1).syncMode(2);
  EXPECT_EQ(feed(reader), "");
  Bytes other;
  other.create("Routing::Pim::Bidir::ClearConfigColl", "other", 1);
  EXPECT_TRUE(endsWith(feed(other),
                       "create from readonly peer: Routing::Pim::Bidir::ClearConfigColl other"));
  Bytes transaction;
  transaction.marker(0, 0, 1);
  EXPECT_TRUE(endsWith(feed(transaction), "transaction from readonly peer"));
  EXPECT_TRUE(end->created().empty());
  EXPECT_EQ(end->peakEntities(), 1u);
}

TEST_F(ServingEndpoint, WritingPeersAreBoundedPerConnectionAndWhatTheyMadeGoesWithIt) {
  start(Log::Endpoint::Options{.maxEntities = 50, .maxPendingBytes = 1000});
  auto collection = [](std::string const& name, int members, bool transaction) {
    Bytes s;
    s.create("Routing::Pim::Bidir::ClearConfigColl", name, 1);
    if (transaction) s.marker(258, 1, 1);
    for (int i = 0; i < members; ++i) {
      s.record(258, 1, 0, [&](Bytes& x) { x.str("vrf" + std::to_string(i)).u32(i + 2); });
    }
    return s;
  };
  EXPECT_EQ(feed(collection("own", 30, false)), "");
  ASSERT_EQ(end->created().size(), 1u);
  Kiv::Ptr<Kiv::Entity> const own = end->created().front();
  EXPECT_TRUE(endsWith(feed(collection("big", 60, false)),
                       "too many entities on one connection: 50"));
  EXPECT_TRUE(endsWith(feed(collection("wide", 40, true)), "transaction too large: over 1000"));
  EXPECT_LE(end->peakEntities(), 50u);
  EXPECT_LE(end->peakBytesHeld(), 1000u + Log::MsgHeader::wireSize + Log::kMaxRecordBytes);
  // The peers' far ends are closed: once the channels have gone, so has everything they made.
  ASSERT_TRUE(TestSupport::runUntil(act, [&] { return end->channels().empty(); }));
  ASSERT_TRUE(TestSupport::runUntil(act, [&] { return end->created().empty(); }));
  EXPECT_EQ(own->references(), 1u);
  EXPECT_EQ(state(), "blue=30;0");
}

// The message of what `f` throws while no descriptor can be made. The exception is looked at
// only once descriptors are back: a sanitizer's own checks may need one.
template <class F>
std::string failureWithoutDescriptors(F const& f) {
  rlimit old{};
  ::getrlimit(RLIMIT_NOFILE, &old);
  rlimit none = old;
  none.rlim_cur = 0;
  if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return "setrlimit failed";
  std::exception_ptr error;
  try {
    f();
  } catch (...) {
    error = std::current_exception();
  }
  ::setrlimit(RLIMIT_NOFILE, &old);
  try {
    if (error) std::rethrow_exception(error);
  } catch (std::exception const& e) {
    return e.what();
  }
  return "";
}

// Descriptors run out: the errors carry errno's text.
TEST(NboAttrLogSockets, ASocketPairOrServerThatCannotBeMadeSaysWhy) {
  EXPECT_EQ(failureWithoutDescriptors([] {
              int fds[2];
              Log::socketPair(fds);
            }),
            "NboAttrLog: socketpair failed: Too many open files");
  // The sanitized build carries the undefined-behaviour sanitizer too, whose check of each member
  // access of a class with virtual functions makes a pipe: without descriptors every one fails.
  if (TestSupport::kAddressSanitizer) return;
  Kiv::Activity act;
  std::string const path = "/tmp/attrlog-nofd-" + std::to_string(::getpid());
  EXPECT_EQ(failureWithoutDescriptors([&] { Log::Server server(act, path); }),
            "NboAttrLog::Server: socket failed: Too many open files");
}

TEST(NboAttrLogSockets, ConnectionsBeyondTheBoundAreClosedAsTheyCome) {
  Kiv::Activity act;
  std::string const path = "/tmp/attrlog-bound-" + std::to_string(::getpid());
  Log::Server server(act, path, Log::Endpoint::Options{.maxConnections = 1});
  Log::Client first(act, path), second(act, path);
  ASSERT_TRUE(TestSupport::runUntil(act, [&] { return server.errors() > 0; }));
  EXPECT_EQ(server.lastError(), "peer of " + path + ": too many connections: 1");
  EXPECT_EQ(server.channels().size(), 1u);
}

}  // namespace

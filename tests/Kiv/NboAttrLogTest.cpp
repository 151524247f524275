// The attribute log's reading side against bad input: every bad record is refused with a clear
// error before anything of it (or of its transaction) is applied.

#include "Kiv/NboAttrLog.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "Bidir/AttrLog.h"
#include "Jorv/Exception.h"
#include "support/AttrLogRecords.h"

namespace Bidir = Routing::Pim::Bidir;
namespace Log = Kiv::NboAttrLog;

namespace {

using Bytes = TestSupport::AttrLogRecords;

// In puts the header of the record in front of the errors found in it: compare the end.
::testing::AssertionResult endsWith(std::string const& text, std::string const& tail) {
  if (text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0) {
    return ::testing::AssertionSuccess();
  }
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

  auto more = [](std::function<void(Bytes&)> const& add) {
    Bytes s;
    add(s);
    return s;
  };
  // A flags word above 3 in a group key: the key is not stored.
  EXPECT_EQ(feed(more([](Bytes& s) {
              s.record(259, 2, 1, [](Bytes& x) { x.u32(4).u32(2).u32(0xef000001); });
            }), false),
            "MrouteClearFlags::value > 0x3 not allowed");
  EXPECT_EQ(clr->vrfClearConfig("red")->groupKey(), Bidir::ClearConfig::GroupKey());
  // An identifier nobody announced, and one announced under another parent.
  EXPECT_TRUE(endsWith(
      feed(more([](Bytes& s) { s.record(261, 99, 1, [](Bytes& x) { x.u32(6); }); }), false),
      "entity identifier out of range: 99"));
  EXPECT_TRUE(endsWith(
      feed(more([](Bytes& s) { s.record(261, 2, 7, [](Bytes& x) { x.u32(6); }); }), false),
      "entity identifier out of range: 2"));
  // A deletion whose key is longer than a VRF name may be.
  EXPECT_EQ(feed(more([](Bytes& s) {
              s.record(-258, 1, 0, [](Bytes& x) { x.str(std::string(101, 'v')); });
            }), false),
            "VrfName::bytes > 100 not allowed");
  // A value cut short inside its record, and a record with bytes left over: the error names the
  // record it was found in.
  EXPECT_EQ(feed(more([](Bytes& s) { s.record(261, 2, 1, [](Bytes& x) { x.u8(0).u8(6); }); }),
                 false),
            "record (entity 2, parent 1, attribute 261, length 4): truncated record");
  EXPECT_TRUE(endsWith(
      feed(more([](Bytes& s) { s.record(260, 2, 1, [](Bytes& x) { x.u8(1).u8(0); }); }), false),
      "attribute 260, length 4): bad token, expected 3"));
  EXPECT_TRUE(endsWith(
      feed(more([](Bytes& s) { s.create("Routing::Pim::Bidir::Nothing", "x", 9); }), false),
      "unknown type name: Routing::Pim::Bidir::Nothing"));
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

// Descriptors run out: the errors carry errno's text.
TEST(NboAttrLogSockets, FailuresToMakeASocketSayWhy) {
  Kiv::Activity act;
  std::string const path = "/tmp/attrlog-nofd-" + std::to_string(::getpid());
  rlimit const old = [] {
    rlimit r{};
    ::getrlimit(RLIMIT_NOFILE, &r);
    return r;
  }();
  rlimit none = old;
  none.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  std::string pairError, serverError;
  try {
    int fds[2];
    Log::socketPair(fds);
  } catch (std::exception const& e) {
    pairError = e.what();
  }
  try {
    Log::Server server(act, path);
  } catch (std::exception const& e) {
    serverError = e.what();
  }
  ::setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(pairError, "NboAttrLog: socketpair failed: Too many open files");
  EXPECT_EQ(serverError, "NboAttrLog::Server: socket failed: Too many open files");
}

}  // namespace

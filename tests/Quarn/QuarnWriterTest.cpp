#include <gtest/gtest.h>

#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;

TEST(QuarnWriterSmoke, InsertLookup) {
  TempRoot root;
  auto& dh = Jorv::Platform::getDebugHandler("test");
  Writer w(dh, "t", 100, false, "Test", nullptr, root.path());
  w.attach();
  w.write(record(1, 1, 5));
  bool found = false;
  EXPECT_EQ(w.lookup(TestKey{1, 1}, found).value, 5u);
  EXPECT_TRUE(found);
  EXPECT_TRUE(w.validate());
}

// Shared and private memory regions: creation, read-only mapping, growth with a moving base,
// removal; and the table library's file helpers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Mem/Shared.h"
#include "Quarn/Fenix.h"
#include "Quarn/Files.h"
#include "Quarn/TestRecord.h"
#include "support/PrivateTmpfs.h"

namespace {

using TempDir = QuarnTest::TempRoot;

TEST(MemShared, WriterAndReadOnlyMappingsShareContentAcrossGrowth) {
  TempDir dir;
  std::string const root = dir.path() + "/nested/table";
  Mem::Shared writer("data", root);
  EXPECT_EQ(writer.name(), root + "/data");
  EXPECT_EQ(writer.sizeOnDisk(), 0u);
  Mem::Shared reader("data", root);
  EXPECT_FALSE(reader.attachReadOnly());  // no file yet

  std::size_t const page = Mem::pageSize();
  ASSERT_TRUE(writer.attach(page));  // creates the directories and the file
  EXPECT_EQ(writer.sizeOnDisk(), page);
  std::strcpy(writer.base(), "hello");
  ASSERT_TRUE(reader.attachReadOnly());
  EXPECT_TRUE(reader.readOnly());
  EXPECT_EQ(reader.mappedSize(), page);
  EXPECT_STREQ(reader.base(), "hello");
  EXPECT_FALSE(reader.resize(2 * page));  // a read-only mapping never changes the file

  // Growth far enough that the mapping usually moves; the content travels with it.
  ASSERT_TRUE(writer.resize(64 * page));
  EXPECT_EQ(writer.sizeOnDisk(), 64 * page);
  std::strcpy(writer.base() + 63 * page, "tail");
  EXPECT_STREQ(writer.base(), "hello");
  EXPECT_FALSE(reader.remapReadOnly(65 * page));  // never past the end of the file
  ASSERT_TRUE(reader.remapReadOnly(64 * page));
  EXPECT_STREQ(reader.base() + 63 * page, "tail");

  // Attaching an existing, larger file never shrinks it.
  Mem::Shared again("data", root);
  ASSERT_TRUE(again.attach(page));
  EXPECT_EQ(again.sizeOnDisk(), 64 * page);
  EXPECT_STREQ(again.base(), "hello");

  EXPECT_TRUE(writer.remove());
  EXPECT_EQ(writer.sizeOnDisk(), 0u);
  EXPECT_FALSE(writer.attached());
  EXPECT_STREQ(reader.base(), "hello");  // an unlinked file stays mapped where it is
  EXPECT_FALSE(writer.resize(page));
}

// A mapping follows its own file, not its path: growth after the file was deleted and
// re-created grows the mapped file; truncation under a mapping reads as zeros and marks the
// mapping damaged instead of killing the process, while other SIGBUS stay fatal (to whatever
// handled them before: the default action, or a sanitizer's report).
TEST(MemShared, MappingsSurviveTheirFileBeingReplacedOrTruncated) {
  TempDir dir;
  std::size_t const page = Mem::pageSize();
  Mem::Shared writer("data", dir.path());
  ASSERT_TRUE(writer.attach(page));
  std::strcpy(writer.base(), "old");
  ASSERT_EQ(::unlink(writer.path().c_str()), 0);
  Mem::Shared stranger("data", dir.path());
  ASSERT_TRUE(stranger.attach(page));  // another file under the same name
  ASSERT_TRUE(writer.resize(16 * page));
  std::strcpy(writer.base() + 15 * page, "tail");  // would fault if the stranger had grown
  EXPECT_FALSE(writer.damaged());
  EXPECT_EQ(writer.mappedFileSize(), 16 * page);
  EXPECT_EQ(stranger.sizeOnDisk(), page);
  EXPECT_STREQ(writer.base(), "old");

  std::strcpy(stranger.base() + page - 8, "end");
  Mem::Shared reader("data", dir.path());
  ASSERT_TRUE(reader.attachReadOnly());
  ASSERT_TRUE(stranger.resize(4 * page));
  ASSERT_TRUE(reader.remapReadOnly(4 * page));
  EXPECT_FALSE(reader.truncated());
  ASSERT_EQ(::truncate(reader.path().c_str(), 0), 0);
  EXPECT_TRUE(reader.truncated());
  EXPECT_FALSE(reader.damaged());
  volatile char const* p = reader.base();
  EXPECT_EQ(p[3 * page + 5], 0);  // faults; answered with zeros
  EXPECT_TRUE(reader.damaged());
  EXPECT_EQ(p[page - 8], 0);
  EXPECT_FALSE(stranger.damaged());
  reader.detach();
  ASSERT_TRUE(reader.attachReadOnly(0) == false);  // empty file: nothing to map

  EXPECT_EXIT(
      {
        int const fd = ::open(writer.path().c_str(), O_RDWR);
        void* raw = ::mmap(nullptr, page, PROT_READ, MAP_SHARED, fd, 0);
        (void)*static_cast<char volatile*>(raw);  // not a registered mapping
        std::_Exit(0);
      },
      [](int status) { return !(WIFEXITED(status) && WEXITSTATUS(status) == 0); }, "");
}

// On a file system that finds pages on first touch (tmpfs), the bytes of a mapping are reserved
// when its file is made or grows: a full file system fails that call with ENOSPC and leaves the
// file, its mapping and the free space as they were; nothing faults later.
TEST(MemShared, SpaceIsReservedWhenAFileIsMadeOrGrows) {
  TestSupport::PrivateTmpfs fs(256 * 1024);
  if (!fs.available()) GTEST_SKIP() << "no private tmpfs here (" << fs.why() << ")";
  std::size_t const page = Mem::pageSize();
  std::size_t const free = fs.freeBytes();
  Mem::Shared file("data", fs.path());
  ASSERT_TRUE(file.attach(4 * page));
  EXPECT_EQ(fs.freeBytes(), free - 4 * page);  // taken now, not on first touch
  std::strcpy(file.base() + 3 * page, "kept");
  ASSERT_TRUE(fs.fill(2 * page));

  errno = 0;
  EXPECT_FALSE(file.resize(8 * page));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(file.mappedSize(), 4 * page);
  EXPECT_EQ(file.mappedFileSize(), 4 * page);
  EXPECT_EQ(fs.freeBytes(), 2 * page);
  EXPECT_STREQ(file.base() + 3 * page, "kept");
  ASSERT_TRUE(file.resize(6 * page));  // what fits
  std::strcpy(file.base() + 5 * page, "tail");

  Mem::Shared other("other", fs.path());
  errno = 0;
  EXPECT_FALSE(other.attach(page));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(std::filesystem::exists(other.path()));  // no empty file left behind

  fs.release();
  ASSERT_TRUE(file.resize(8 * page));
  EXPECT_STREQ(file.base() + 5 * page, "tail");
  ASSERT_TRUE(other.attach(page));
}

// A fault inside the file is not truncation: a page that the full file system cannot supply ends
// the process (or whatever handled SIGBUS before decides) instead of reading as zeros.
TEST(MemShared, AFaultInsideTheFileIsNotPaperedOver) {
  TestSupport::PrivateTmpfs fs(256 * 1024);
  if (!fs.available()) GTEST_SKIP() << "no private tmpfs here (" << fs.why() << ")";
  std::size_t const page = Mem::pageSize();
  Mem::Shared file("data", fs.path());
  ASSERT_TRUE(file.attach(2 * page));
  int const fd = ::open(file.path().c_str(), O_RDWR);
  ASSERT_EQ(::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(page), off_t(page)),
            0);
  ::close(fd);
  ASSERT_TRUE(fs.fill());
  EXPECT_EXIT(
      {
        file.base()[page] = 1;  // a hole with no page left to fill it
        std::_Exit(file.damaged() ? 2 : 0);
      },
      [](int status) {
        return !(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 2));
      },
      "");
  EXPECT_FALSE(file.damaged());
}

TEST(QuarnUtil, FenixFileAndCorruptionMarker) {
  TempDir dir;
  std::string const root = dir.path() + "/t";
  EXPECT_EQ(Quarn::FenixFile::read(root), 0u);
  ASSERT_TRUE(Quarn::FenixFile::write(root, 0x12340001));
  EXPECT_EQ(Quarn::FenixFile::read(root), 0x12340001u);
  EXPECT_EQ(Quarn::Util::memSize(root + "/fenix"), 4u);
  ASSERT_TRUE(Quarn::Util::fileWriteAtomic(root + "/fenix", "abc"));
  EXPECT_EQ(Quarn::FenixFile::read(root), 0u);  // malformed

  ASSERT_TRUE(Quarn::Util::writeCorruptionFile(root, "QuarnReader::doLookup() bad"));
  EXPECT_EQ(Quarn::Util::fileRead(root + "/corruption-detected"), "QuarnReader::doLookup() bad");
  EXPECT_EQ(Quarn::Util::fileRead(root + "/missing"), "");
  // No temporary file is left behind.
  std::size_t files = 0;
  for ([[maybe_unused]] auto const& e : std::filesystem::directory_iterator(root)) ++files;
  EXPECT_EQ(files, 2u);
}

}  // namespace

#pragma once
// What quarnctl learns of a table without mapping it: the headers of its four files, read with
// pread through a read-only descriptor, the sizes on disk, the "fenix", "last-owner" and
// "corruption-detected" files, and whether the writer lives. A snapshot: with a live writer the
// words may be from different moments, which is all an overview needs.
//
// `tableProblem` is the one place that says why a table cannot be read. Where a reading mount
// would wait (no incarnation recorded, permission denied) it gives that mount's own reason
// (Quarn::mountObstacle, what QuarnMap::mountStatus says); it adds what only a tool looking at
// the files sees: the tables a root does hold, a missing file, a header that fails its checks.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Quarn/BucketTable.h"
#include "Quarn/ConquerTable.h"
#include "Quarn/SlotTable.h"

namespace Quarnctl {

struct FileInfo {
  std::string path;
  bool present = false;
  std::uint64_t bytes = 0;  // size on disk
  int error = 0;            // errno of a failed open or read
};

struct TableInfo {
  std::string name;
  std::string dir;
  FileInfo slotsFile, bucketsFile, conquerFiles[2];
  // A header is there when its file holds at least the header's bytes.
  std::optional<Quarn::SlotTable::Header> slots;
  std::optional<Quarn::BucketTable::Header> buckets;
  std::optional<Quarn::ConquerTable::Header> conquer[2];
  std::uint32_t fenix = 0;      // the "fenix" file; 0 when missing or malformed
  std::uint32_t writerPid = 0;  // the "last-owner" file; 0 when none
  bool writerAlive = false;
  std::optional<std::string> corruption;  // the "corruption-detected" report, if one is there

  std::uint64_t bytesOnDisk() const {
    return slotsFile.bytes + bucketsFile.bytes + conquerFiles[0].bytes + conquerFiles[1].bytes;
  }
  // Slot header names and numbers, or empty/0 when the header is missing.
  std::string valueTypeName() const;
  std::string classTypeName() const;
  std::uint32_t records() const;
  std::uint32_t numSlots() const;
  std::uint32_t tableSize() const;
  std::uint32_t readers() const;
  // The current notification table's id, 0 or 1 (0 when unknown).
  std::uint32_t currentTable() const;
};

// The names of the tables under `root` (directories that hold a "slots" file), sorted.
std::vector<std::string> tableNames(std::string const& root);

TableInfo readTableInfo(std::string const& root, std::string const& name);

// Why `name` under `root` cannot be read, or nothing when it can: no root directory, no such
// table, a file missing or not readable (permission), a header that fails its checks, no
// incarnation recorded. `info` is the table as read just before.
std::optional<std::string> tableProblem(std::string const& root, TableInfo const& info);

// Why the root directory itself cannot be read (missing, not a directory, no permission).
std::optional<std::string> rootProblem(std::string const& root);

// readTableInfo, then raises Failure with tableProblem's reason when there is one.
TableInfo readableTable(std::string const& root, std::string const& name);

// Whether process `pid` exists (signal 0; EPERM means it does).
bool processAlive(pid_t pid);

// A stamp that changes whenever the writer changes the table: its incarnation, slot count and
// notification queue position. Equal stamps before and after a read mean the writer changed
// nothing in between.
struct ChangeStamp {
  std::uint32_t fenix = 0;
  std::uint64_t numSlotsUnit = 0;
  std::uint32_t currentTable = 0;
  std::uint32_t currentPos = 0;
  std::uint64_t minSeq = 0;
  bool operator==(ChangeStamp const&) const = default;
};
ChangeStamp changeStamp(std::string const& root, std::string const& name);

}  // namespace Quarnctl

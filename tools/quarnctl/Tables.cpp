#include "Tables.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Cli.h"
#include "Quarn/Fenix.h"
#include "Quarn/Files.h"
#include "Quarn/ReaderMounter.h"

namespace Quarnctl {
namespace {

// Reads the first sizeof(H) bytes of `file` into a header, filling in what is on disk.
template <class H>
std::optional<H> readHeader(FileInfo& file) {
  int const fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    file.error = errno;
    return std::nullopt;
  }
  struct stat st {};
  std::optional<H> out;
  if (::fstat(fd, &st) != 0) {
    file.error = errno;
  } else {
    file.present = true;
    file.bytes = std::uint64_t(st.st_size);
    H h;
    ssize_t const n = ::pread(fd, &h, sizeof h, 0);
    if (n < 0) {
      file.error = errno;
    } else if (std::size_t(n) == sizeof h) {
      out = h;
    }
  }
  ::close(fd);
  return out;
}

FileInfo fileAt(std::string const& dir, char const* name) {
  FileInfo f;
  f.path = dir + "/" + name;
  return f;
}

std::string fixedString(char const* chars, std::size_t size) {
  return std::string(chars, ::strnlen(chars, size));
}

}  // namespace

std::string TableInfo::valueTypeName() const {
  return slots ? fixedString(slots->valueTypeName, sizeof slots->valueTypeName) : std::string();
}
std::string TableInfo::classTypeName() const {
  return slots ? fixedString(slots->classTypeName, sizeof slots->classTypeName) : std::string();
}
std::uint32_t TableInfo::records() const {
  return slots ? slots->occupiedSlots : 0;
}
std::uint32_t TableInfo::numSlots() const {
  return slots ? slots->numSlots : 0;
}
std::uint32_t TableInfo::tableSize() const {
  return slots ? slots->tableSize : 0;
}
std::uint32_t TableInfo::readers() const {
  return conquer[0] ? conquer[0]->numReaders : 0;
}
std::uint32_t TableInfo::currentTable() const {
  return conquer[0] && conquer[0]->currentTable < 2 ? conquer[0]->currentTable : 0;
}

bool processAlive(pid_t pid) {
  return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

std::vector<std::string> tableNames(std::string const& root) {
  std::vector<std::string> names;
  DIR* d = ::opendir(root.c_str());
  if (d == nullptr) return names;
  while (dirent const* e = ::readdir(d)) {
    std::string const name = e->d_name;
    if (name == "." || name == "..") continue;
    struct stat st {};
    std::string const dir = root + "/" + name;
    if (::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
        ::access((dir + "/slots").c_str(), F_OK) == 0) {
      names.push_back(name);
    }
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

TableInfo readTableInfo(std::string const& root, std::string const& name) {
  TableInfo t;
  t.name = name;
  t.dir = root + "/" + name;
  t.slotsFile = fileAt(t.dir, "slots");
  t.bucketsFile = fileAt(t.dir, "buckets");
  t.conquerFiles[0] = fileAt(t.dir, "conquer.1");
  t.conquerFiles[1] = fileAt(t.dir, "conquer.2");
  t.slots = readHeader<Quarn::SlotTable::Header>(t.slotsFile);
  t.buckets = readHeader<Quarn::BucketTable::Header>(t.bucketsFile);
  t.conquer[0] = readHeader<Quarn::ConquerTable::Header>(t.conquerFiles[0]);
  t.conquer[1] = readHeader<Quarn::ConquerTable::Header>(t.conquerFiles[1]);
  t.fenix = Quarn::FenixFile::read(t.dir);
  t.writerPid = 0;
  std::string const owner = Quarn::Util::fileRead(t.dir + "/last-owner");
  char* end = nullptr;
  unsigned long const pid = std::strtoul(owner.c_str(), &end, 10);
  if (end != owner.c_str() && pid < 0x7fffffffUL) t.writerPid = std::uint32_t(pid);
  t.writerAlive = processAlive(pid_t(t.writerPid));
  if (::access((t.dir + "/corruption-detected").c_str(), F_OK) == 0) {
    t.corruption = Quarn::Util::fileRead(t.dir + "/corruption-detected");
  }
  return t;
}

std::optional<std::string> rootProblem(std::string const& root) {
  struct stat st {};
  if (::stat(root.c_str(), &st) != 0) return "no table root " + root + ": " + std::strerror(errno);
  if (!S_ISDIR(st.st_mode)) return "the table root " + root + " is not a directory";
  if (::access(root.c_str(), R_OK | X_OK) != 0) {
    return "cannot read the table root " + root + ": " + std::strerror(errno);
  }
  return std::nullopt;
}

std::optional<std::string> tableProblem(std::string const& root, TableInfo const& t) {
  if (auto const why = rootProblem(root)) return why;
  struct stat st {};
  if (::stat(t.dir.c_str(), &st) != 0) {
    std::string text = "no table '" + t.name + "' under " + root;
    std::vector<std::string> const names = tableNames(root);
    if (names.empty()) return text + " (it holds no table)";
    text += " (tables:";
    for (auto const& n : names) text.append(" ").append(n);
    return text + ")";
  }
  // Where a reading mount would wait (no incarnation recorded, permission denied), the operator
  // is told the reason that mount gives in its mountStatus().
  if (std::string why = Quarn::mountObstacle(t.name, t.dir, t.fenix); !why.empty()) return why;
  for (FileInfo const* f : {&t.slotsFile, &t.bucketsFile, &t.conquerFiles[0], &t.conquerFiles[1]}) {
    if (f->error == ENOENT) {
      return "table '" + t.name + "' has no file " + f->path +
             ": its writer has not created it yet, or removed it";
    }
    if (f->error != 0) return "cannot read " + f->path + ": " + std::strerror(f->error);
  }
  std::string error;
  if (!t.slots || !t.slots->validate(t.slotsFile.bytes, 0, error)) {
    if (!t.slots)
      error = "shorter than its header: " + std::to_string(t.slotsFile.bytes) + " bytes";
    return "table '" + t.name + "': " + t.slotsFile.path + ": " + error;
  }
  if (!t.buckets || !t.buckets->validate(t.bucketsFile.bytes, 0, error)) {
    if (!t.buckets)
      error = "shorter than its header: " + std::to_string(t.bucketsFile.bytes) + " bytes";
    return "table '" + t.name + "': " + t.bucketsFile.path + ": " + error;
  }
  for (int i = 0; i < 2; ++i) {
    if (!t.conquer[i] || !t.conquer[i]->validate(t.conquerFiles[i].bytes, t.slots->fenix, error)) {
      if (!t.conquer[i]) {
        error = "shorter than its header: " + std::to_string(t.conquerFiles[i].bytes) + " bytes";
      }
      return "table '" + t.name + "': " + t.conquerFiles[i].path + ": " + error;
    }
  }
  if (t.fenix != t.slots->fenix) {
    return "table '" + t.name + "' is between incarnations: fenix file " + std::to_string(t.fenix) +
           ", slot file " + std::to_string(t.slots->fenix);
  }
  return std::nullopt;
}

TableInfo readableTable(std::string const& root, std::string const& name) {
  TableInfo t = readTableInfo(root, name);
  if (auto const why = tableProblem(root, t)) throw Failure(*why);
  return t;
}

ChangeStamp changeStamp(std::string const& root, std::string const& name) {
  TableInfo const t = readTableInfo(root, name);
  ChangeStamp s;
  s.fenix = t.fenix;
  if (t.slots) s.numSlotsUnit = (std::uint64_t(t.slots->numSlots) << 32) | t.slots->numSlotsVersion;
  s.currentTable = t.currentTable();
  if (t.conquer[0]) s.minSeq = t.conquer[0]->minSeq;
  if (auto const& c = t.conquer[s.currentTable]) s.currentPos = c->currentPos;
  return s;
}

}  // namespace Quarnctl

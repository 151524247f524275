#pragma once
// Small file helpers of the table library: whole-file reads, atomic replacement (a reader sees
// the old or the new content, never a mix), the corruption marker, and sizes on disk.

#include <cstddef>
#include <string>
#include <string_view>

#include "Mem/Shared.h"

namespace Quarn::Util {

// Whole content of a file; empty when it does not exist.
std::string fileRead(std::string const& path);
// Replaces `path` with `content` atomically (a temporary file renamed over it), so that a reader
// sees either the old or the new content; the file gets `fileMode` exactly. Creates missing
// directories. False on failure (errno set).
bool fileWriteAtomic(std::string const& path, std::string_view content,
                     unsigned fileMode = Mem::defaultFileMode);
// Records a corruption report for the writer in <rootPath>/corruption-detected.
bool writeCorruptionFile(std::string const& rootPath, std::string_view text);
// Size of a file on disk; 0 when it does not exist.
std::size_t memSize(std::string const& path);
// Writes all `size` bytes to `fd`, retrying short writes and EINTR. False on error (errno set).
bool writeAll(int fd, char const* data, std::size_t size);

}  // namespace Quarn::Util

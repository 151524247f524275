#pragma once
// The record types quarnctl knows, found by the value type name a table's slot header carries.
//
// A table of a type this build does not know is still listed, described and dumped: its records
// print as their size and bytes in hexadecimal. A type is known only when both its name and its
// size match (a record of the same name laid out otherwise by another build is unknown too), so
// bytes are never read as a type they are not.
//
// Every known type prints through its attribute declaration: the value text form
// (Kiv/ValueText.h) for people, every field by name for JSON (RecordJson.h).

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Json.h"

namespace Quarnctl {

struct Context;

// The outcome of the full validation of a table.
struct CheckOutcome {
  bool valid = false;
  std::string message;  // the first failing check's message, exactly as the validator words it
};

class RecordKind {
 public:
  virtual ~RecordKind() = default;

  virtual std::string_view typeName() const = 0;
  virtual std::uint32_t size() const = 0;

  // `bytes` holds size() bytes of one record.
  virtual std::string text(void const* bytes) const = 0;
  virtual void json(Json::Writer& w, void const* bytes) const = 0;
  virtual void keyJson(Json::Writer& w, void const* bytes) const = 0;
  virtual std::string keyText(void const* bytes) const = 0;

  // Which records a key text names (raises UsageError for text that names no key). The text is
  // the key's value text form, or, for a key of several fields, its field values separated by
  // commas in declaration order ("239.1.0.7,Ethernet3"); with `partial`, leading fields alone
  // name every key that agrees on them ("239.1.0.7").
  virtual std::function<bool(void const*)> keyMatcher(std::string const& text,
                                                      bool partial) const = 0;
  // The record of `keyText` in the table in directory `dir`, read through a read-only mapping;
  // nothing when absent. Raises Failure when the table cannot be read.
  virtual std::optional<std::string> lookup(std::string const& dir,
                                            std::string const& keyText) const = 0;
  // The full validation of table `name` under `root`, over read-only mappings.
  virtual CheckOutcome check(std::string const& root, std::string const& name,
                             std::uint32_t tableSize) const = 0;
  // Follows table `name` and prints its net changes until the activity is stopped.
  virtual int watch(Context& ctx, std::string const& name) const = 0;
};

// The kind of `typeName` records of `size` bytes, or nullptr when this build does not know it.
RecordKind const* recordKind(std::string_view typeName, std::uint32_t size);

// "size 48 hex 0a0b..." for people; {"size":48,"hex":"0a0b..."} members for JSON.
std::string hexBytes(void const* bytes, std::size_t size);

}  // namespace Quarnctl

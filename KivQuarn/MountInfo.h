#pragma once
// How the tables of an entity are to be mounted: per table (collection) name, the information
// the engine needs, today the capacity (the number of records the table is sized for; writes
// beyond it fail with "Quarn table full"). A plain value, built fresh by the entity that owns the
// tables.

#include <cstdint>
#include <map>
#include <string>

namespace KivQuarn {

class MountInfo {
 public:
  struct KivCollectionInfo {
    std::uint32_t capacity = 0;
    friend bool operator==(KivCollectionInfo const&, KivCollectionInfo const&) = default;
  };
  using CollectionInfoMap = std::map<std::string, KivCollectionInfo>;

  // Adds or replaces the entry of `name`.
  void collectionInfoIs(std::string const& name, KivCollectionInfo const& info) {
    collectionInfo_[name] = info;
  }
  // The entry of `name`, or nullptr.
  KivCollectionInfo const* collectionInfo(std::string const& name) const {
    auto it = collectionInfo_.find(name);
    return it == collectionInfo_.end() ? nullptr : &it->second;
  }
  CollectionInfoMap const& collectionInfo() const noexcept { return collectionInfo_; }

  friend bool operator==(MountInfo const&, MountInfo const&) = default;

 private:
  CollectionInfoMap collectionInfo_;
};

}  // namespace KivQuarn

#pragma once
// KivQuarn::KivQuarnMap: a table of the shared-memory engine standing as an attribute of an
// entity. The owner binds it once (`entity(name, owner, notify)`); from then on:
// - it has a name under its owner and a path (the owner's full path, "/", the name);
// - it works at once as an in-process local writer of 100 records (a "QuarnTemp-" table), so the
//   owner can be written before the table is mounted in shared memory;
// - `init` (or `mount`, which takes the capacity from the owner's MountInfo) mounts it in shared
//   memory and replaces the local writer. Records written locally are carried into a shared
//   writer (so nothing written before the mount is lost); a reading mount drops them, since the
//   content then comes from the table's writer;
// - keys that a reading table reports as changed reach the owner's notify function, which fans
//   them out to the owner's notifiees;
// - it follows exactly one placement of its owner in the entity tree (`handleParent`): the first
//   placement renames the local writer after the new path, a second one is refused, and an owner
//   that loses its parent has its table detached (writes are then refused).
//
// Single-threaded, on the owner's activity, like the table front it extends.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "Kiv/Exception.h"
#include "Kiv/Ptr.h"
#include "KivQuarn/KivNotifier.h"
#include "KivQuarn/KivQuarnType.h"
#include "KivQuarn/MountInfo.h"
#include "Quarn/QuarnMap.h"

namespace KivQuarn {

// Owner: the entity type holding the attribute (with `fullPath()`, `parent()` and `name()`).
template <class Owner, class Wrapper, class Key>
class KivQuarnMap : public Quarn::QuarnMap<Key, Wrapper, KivNotifier<Key, Wrapper, Owner>> {
 public:
  using Notifier = KivNotifier<Key, Wrapper, Owner>;
  using Base = Quarn::QuarnMap<Key, Wrapper, Notifier>;
  using Record = typename Wrapper::RecordType;
  static constexpr unsigned localWriterSize = 100;

  // Walks the records in the engine's order, or in slot order (`slotIterator`); `*it` is a copy
  // of the current record.
  class Iterator {
   public:
    Iterator() = default;
    explicit operator bool() const noexcept { return valid_; }
    Record const& operator*() const noexcept { return value_; }
    Record const* operator->() const noexcept { return &value_; }
    Key const& key() const noexcept { return value_.key; }
    // Where the current record was found: lets a later slotIterator resume there.
    Quarn::IterHint const& hint() const noexcept { return hint_; }
    Iterator& operator++() {
      if (valid_) {
        valid_ = slotOrder_ ? map_->slotNext(Key(value_.key), value_, hint_)
                            : map_->next(Key(value_.key), value_, hint_);
      }
      return *this;
    }

   private:
    friend class KivQuarnMap;
    Iterator(KivQuarnMap const* map, bool slotOrder) : map_(map), slotOrder_(slotOrder) {}
    KivQuarnMap const* map_ = nullptr;
    Wrapper value_;
    Quarn::IterHint hint_;
    bool slotOrder_ = false;
    bool valid_ = false;
  };

  KivQuarnMap() = default;
  ~KivQuarnMap() override {
    KIV_TRACE(debugHandle(), 5, "KivQuarnMap::~KivQuarnMap() deleting state");
    this->notifierIs(nullptr);
  }

  // Binds the table to `owner` under `name`; `notify` hears every key a reading mount reports.
  void entity(std::string name, Owner& owner, typename Notifier::Notify notify) {
    owner_ = &owner;
    name_ = std::move(name);
    dh_ = &Jorv::Platform::getDebugHandler("QuarnTemp-" + name_);
    path_ = owner.fullPath() + "/" + name_;
    notifier_ = std::make_unique<Notifier>(owner, notify);
    this->nameIs(name_);
    this->notifierIs(notifier_.get());
    KIV_TRACE(*dh_, 5, "KivQuarnMap::entity() creating local QuarnWriter ", path_);
    createDefaultLocalWriter({});
  }

  void init(Quarn::QuarnType mode, bool isLocal, unsigned size) override {
    bool const wasInitialized = this->initialized();
    std::vector<Wrapper> carried;
    if (!wasInitialized) carried = localRecords();
    try {
      Base::init(mode, isLocal, size);
    } catch (...) {
      if (!this->initialized() && owner_ != nullptr) createDefaultLocalWriter(carried);
      throw;
    }
    if (wasInitialized) return;
    if (mode == Quarn::QuarnType::writer) {
      for (Wrapper const& record : carried) this->safeWrite(record);
    } else if (!carried.empty()) {
      KIV_TRACE(debugHandle(), 3, "KivQuarnMap::init() ", path_, " dropping ", carried.size(),
                " local records for a ", Quarn::quarnTypeWord(mode), " mount");
    }
  }
  // `init` with the capacity `info` gives for this table's name (0 when it names none).
  void mount(Quarn::QuarnType mode, MountInfo const& info, bool isLocal = false) {
    auto const* entry = info.collectionInfo(name_);
    init(mode, isLocal, entry != nullptr ? entry->capacity : 0);
  }
  void cleanup() override { Base::cleanup(); }
  bool validate() override {
    KIV_TRACE(debugHandle(), 5, "QuarnMap::validate() ", path_);
    return Base::validate();
  }
  bool validateFiles() override {
    KIV_TRACE(debugHandle(), 5,
              "KivQuarnMap::validateFiles() delegating to QuarnMap::validateFiles");
    return Base::validateFiles();
  }
  std::string classType() const override {
    return "KivQuarn::KivQuarnMap<" + Jorv::typeName<Owner>() + ", " + Jorv::typeName<Wrapper>() +
           ">";
  }

  // Follows a change of the owner's place in the entity tree (see the class comment).
  void handleParent() {
    std::string const newPath = owner_->fullPath() + "/" + name_;
    if (owner_->parent() == nullptr) {
      KIV_TRACE(debugHandle(), 5, "KivQuarnMap::handleParent(): ", newPath, " is now an orphan");
      this->controlDetach();
      return;
    }
    if (parented_) {
      throw Jorv::InvalidInitializeException("Entity " + owner_->name() + " already initialized");
    }
    parented_ = true;
    KIV_TRACE(debugHandle(), 5, "KivQuarnMap::handleParent(): old: ", path_, " new: ", newPath);
    path_ = newPath;
    if (!this->initialized()) createDefaultLocalWriter(localRecords());
  }

  // Membership tests are not offered on a table.
  template <class... A>
  [[noreturn]] bool isMemberOf(A const&...) const {
    throw Kiv::OperationNotSupportedException("KivQuarnMap::isMemberOf() not implemented");
  }

  // The owner's record operations, written once for every bound table. Writes and removes
  // notify the owner (its notify function) only after they succeeded; a write that meets
  // corruption fails with "QuarnMap::<op>() in no man's land" (see Quarn::QuarnMap).

  // The record of `key`, or a default record when it is absent.
  Record record(Key const& key) const {
    bool found = false;
    return this->safeLookup(key, found);
  }
  // Writes `record`, then notifies its key.
  void recordIs(Record const& record) {
    this->safeWrite(record);
    notifier_->onKey(record.key);
  }
  // Publishes the pending direct write (the record only names the key), then notifies its key.
  void recordCommit(Record const& record) {
    this->directCommit();
    notifier_->onKey(record.key);
  }
  // Removes `key` and notifies it, returning the removed record; a default record, and no
  // notification, when the key was absent.
  Record recordDel(Key const& key) {
    Wrapper removed;
    if (!this->safeRemove(key, removed)) return Record();
    notifier_->onKey(key);
    return removed;
  }
  // Removes every record, in the engine's order, each as by recordDel. The owner is kept alive
  // meanwhile: a notifiee may drop the last outside reference to it.
  void recordDelAll() {
    Kiv::Ptr<Owner> const keep = owner_->references() > 0 ? owner_ : nullptr;
    for (Iterator it = iterator(); it; ++it) recordDel(it.key());
  }

  Iterator iterator() const {
    Iterator it(this, false);
    it.valid_ = this->first(it.value_, it.hint_);
    return it;
  }
  // From the record of `start`, or the one after it when `start` is absent.
  Iterator iterator(Key const& start) const {
    Iterator it(this, false);
    bool found = false;
    it.value_ = this->safeLookup(start, found);
    it.valid_ = found || this->next(start, it.value_, it.hint_);
    return it;
  }
  // Slot order (Quarn::QuarnBase::slotFirst): a walk over every record that reads the table's
  // memory in order. From the first record; or from the record of `start`, and when `start` is
  // gone from the position `hint` names (the hint() of an iterator that stood on `start`).
  Iterator slotIterator() const {
    Iterator it(this, true);
    it.valid_ = this->slotFirst(it.value_, it.hint_);
    return it;
  }
  Iterator slotIterator(Key const& start, Quarn::IterHint const& hint) const {
    Iterator it(this, true);
    it.hint_ = hint;
    it.valid_ = this->slotAt(start, it.value_, it.hint_);
    return it;
  }

  Owner* ownerEntity() const noexcept { return owner_; }
  std::string const& name() const noexcept { return name_; }
  std::string const& path() const noexcept { return path_; }
  bool parented() const noexcept { return parented_; }

 private:
  Jorv::DebugHandler& debugHandle() const noexcept {
    return dh_ != nullptr ? *dh_ : this->debugHandler();
  }

  std::vector<Wrapper> localRecords() const {
    std::vector<Wrapper> out;
    for (Iterator it = iterator(); it; ++it) out.push_back(*it);
    return out;
  }

  // Installs a fresh in-process writer of localWriterSize records named after the path, holding
  // `records`.
  void createDefaultLocalWriter(std::vector<Wrapper> const& records) {
    std::unique_ptr<Quarn::WriterBackend<Key, Wrapper>> writer;
    try {
      writer = std::make_unique<Quarn::WriterBackend<Key, Wrapper>>(
          *dh_, "QuarnTemp-" + path_, localWriterSize, true, Jorv::typeName<Wrapper>(),
          std::string(), Kiv::Activity::current());
      if (!writer->initialize()) writer.reset();
    } catch (Jorv::Exception const& e) {
      KIV_TRACE(*dh_, 0, "QuarnMap::createDefaultLocalWriter() ", path_, ": ", e.what());
      writer.reset();
    }
    if (writer == nullptr) {
      throw Jorv::RuntimeException(
          "QuarnMap::createDefaultLocalWriter(): unable to initialize local QuarnTemporary");
    }
    for (Wrapper const& record : records) writer->writer().write(record);
    this->standInIs(std::move(writer));
  }

  Owner* owner_ = nullptr;
  std::string name_;
  std::string path_;
  Jorv::DebugHandler* dh_ = nullptr;
  std::unique_ptr<Notifier> notifier_;
  bool parented_ = false;
};

}  // namespace KivQuarn

#pragma once
// The one handle to a table: given a name and a mode ("writer", "shadow", "reader",
// "keyshadow"), local or shared, it creates the matching back end and keeps it mounted.
//
// - Writer: the back end is the table's writer from `init` on. A shared writer also listens for
//   readers on the wake-up channel and watches its root directory for readers' corruption
//   reports (WriterMounter).
// - Reading modes: the back end starts as the placeholder (every lookup finds nothing); the
//   ReaderMounter attaches when the writer's files appear and re-attaches when the writer starts
//   a new incarnation, retrying on a timer while it cannot. After a re-attach the notifier hears
//   every key of the new back end and every key the old one held, so it can drop what is gone.
// - Writes go through `safeWrite`, `safeRemove`, `directWrite`/`directCommit`: corruption met by
//   the writer is reported (`corruptionDetected`) and ends the operation with
//   Jorv::RuntimeException "QuarnMap::<op>() in no man's land"; TableFullException passes through.
//   The writer then recovers by itself (QuarnWriter::recover: a new incarnation holding the
//   records it can still trust), as it does when its mounter's validation fails or when a write
//   finds its files truncated since the last one; so the next write goes to whole files. Neither
//   the front nor KivQuarnMap keeps a copy of the records: what the damage took is gone from the
//   table until its owner writes it again.
//   Corruption met by a lookup or iteration is reported and answered as "nothing found"; a
//   reading table's report goes to the writer through the corruption file.
// - Operations that change or check the files are refused on a reading table; every refusal and
//   every failed `init` leaves the map as it was.
// - A passive reading table (`passiveIs`, before `init`) changes nothing under the root: its back
//   end never connects to the writer (which neither counts it nor waits for it before pruning
//   the notification queue) and polls the queue instead, re-reading the table when the writer
//   pruned past it; corruption it meets is traced, not recorded in the corruption file. For
//   tools that must leave a table exactly as they found it.
//
// `Notifier` is a KeyNotifier<Key> or any type with `onKey(Key const&)`; it hears the keys that
// a reading back end reports as changed. Single-threaded: the map, its mounters and its back end
// run on the activity given at construction.

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Mem/Shared.h"
#include "Quarn/Exceptions.h"
#include "Quarn/Files.h"
#include "Quarn/QuarnBackends.h"
#include "Quarn/QuarnBase.h"
#include "Quarn/QuarnBaseDummy.h"
#include "Quarn/ReaderMounter.h"
#include "Quarn/RootPath.h"
#include "Quarn/WriterMounter.h"

namespace Quarn {

// "Quarn-" + the low 16 bits of hash(name) as four lowercase hex digits + "-" + name + "-" +
// the mode word.
std::string quarnDebugHandlerName(std::string_view name, QuarnType mode);
// The process id recorded in a table's "last-owner" file; 0 when none.
std::uint32_t quarnLastOwner(std::string const& rootPath);

template <class Key, class Wrapper, class Notifier = KeyNotifier<Key>>
class QuarnMap {
 public:
  // `rootDir` holds the table directories (empty: Mem::defaultRootDir()). A map made without a
  // name is named later with `nameIs`, before `init`.
  explicit QuarnMap(std::string name = {}, Notifier* notifier = nullptr, std::string rootDir = {},
                    Kiv::Activity& activity = Kiv::Activity::current())
      : name_(std::move(name)),
        rootDir_(std::move(rootDir)),
        root_(name_, rootDir_),
        activity_(activity),
        notifier_(notifier),
        dh_(&Jorv::Platform::getDebugHandler("Quarn/QuarnMap")),
        backend_(std::make_unique<QuarnBaseDummy<Key, Wrapper>>(*dh_, QuarnType::writer)) {}
  QuarnMap(QuarnMap const&) = delete;
  QuarnMap& operator=(QuarnMap const&) = delete;

  virtual std::string readerCounters() const {
    if (initialized_ && mode_ == QuarnType::writer) {
      throw Jorv::Exception("readerCounters() not implemented");
    }
    return backend_->readerCounters();
  }
  virtual std::string writerCounters() const {
    if (mode_ != QuarnType::writer) throw Jorv::Exception("writerCounters() not implemented");
    return backend_->writerCounters();
  }
  // Mounts the table once in `mode` (see the class comment); a shared writer takes the table's
  // writer lock and creates or attaches its files. Failures raise exceptions and leave the map
  // uninitialised; a writer that cannot attach raises Jorv::RuntimeException "QuarnMap::init()
  // failed to initialize collection <name>: " followed by the cause: another live writer of the
  // table (naming its pid), no space left on device (naming the file and the size asked), ...
  virtual void init(QuarnType mode, bool isLocal, unsigned size);
  // Removes the table's files; the writer goes with them (later writes are refused).
  virtual void cleanup() {
    refuseUnlessWriter("cleanup to read-only Quarn table");
    backend_->cleanup();
    detach();
  }
  virtual std::string rootPath() const { return root_.str(); }
  virtual std::string quarnName() const { return name_; }
  virtual bool validate() {
    refuseUnlessWriter("validate to read-only Quarn table");
    return guardedRead([&] { return backend_->validate(); }, false);
  }
  virtual bool validateFiles() {
    KIV_TRACE(*dh_, 5, "QuarnMap::validateFiles() ", name_);
    refuseUnlessWriter("validateFiles to read-only Quarn table");
    return backend_->validateFiles();
  }
  // The mode, whether mounted, the back end's own status, and for a reading table that is not
  // fully attached, why it waits (" waiting: " and the reason, see ReaderMounter::waitReason).
  virtual std::string mountStatus() const {
    std::string status = "QuarnMap " + name_ + " " + quarnTypeWord(mode_) +
                         (mounted_ ? " " : " unmounted ") + backend_->mountStatus();
    if (readerMounter_ != nullptr && !fullyAttached()) {
      status += " waiting: " + readerMounter_->waitReason();
    }
    return status;
  }
  virtual std::uint64_t sequence() const { return backend_->sequence(); }
  virtual std::uint32_t fenixId() const { return backend_->fenixId(); }
  virtual std::uint32_t owner() const { return quarnLastOwner(root_.str()); }
  // Detaches and stops mounting: the table stays unmounted until `attach()` is called.
  virtual void controlDetach();
  // The size the table was initialised with.
  virtual std::uint32_t resize() const { return size_; }
  virtual std::uint32_t maxSize() const { return backend_->maxSize(); }
  virtual std::uint32_t capacity() const { return backend_->capacity(); }
  virtual void notifying(bool on) const;
  virtual void yieldTimeIs(double const& seconds) const;
  virtual void sampleIs(unsigned sample) const;
  // The type of the table as the entity framework names it.
  virtual std::string classType() const { return "Quarn::QuarnMap<" + Jorv::typeName<Wrapper>() + ">"; }
  virtual ~QuarnMap();

  void attach();
  void detach();
  void handleDisconnect();

  Wrapper const* safeWrite(Wrapper const& value) {
    auto& w = writerOrRefuse("write to read-only Quarn table");
    return guardedWrite("safeWrite", [&] { return w.write(value); });
  }
  bool safeRemove(Key const& key, Wrapper& out) {
    auto& w = writerOrRefuse("remove to read-only Quarn table");
    return guardedWrite("safeRemove", [&] { return w.remove(key, out); });
  }
  bool safeRemove(Key const& key) {
    Wrapper out;
    return safeRemove(key, out);
  }
  Wrapper* directWrite(Key const& key) {
    auto& w = writerOrRefuse("write to read-only Quarn table");
    return guardedWrite("directWrite", [&] { return w.directWrite(key); });
  }
  void directCommit() {
    auto& w = writerOrRefuse("write to read-only Quarn table");
    guardedWrite("directCommit", [&] { w.directCommit(); });
  }

  Wrapper safeLookup(Key const& key, bool& found) const {
    found = false;
    // Not through guardedRead: the default record is built only when it is needed (lookups are
    // the hot path of the readers' computations).
    try {
      return backend_->lookup(key, found);
    } catch (CorruptionDetectedException const& e) {
      corruptionDetected(e.what());
      found = false;
      return Wrapper{};
    }
  }
  bool first(Wrapper& out, IterHint& hint) const {
    return guardedRead([&] { return backend_->first(0, out, hint); }, false);
  }
  bool next(Key const& key, Wrapper& out, IterHint& hint) const {
    return guardedRead([&] { return backend_->next(key, out, hint); }, false);
  }
  // Slot order (see QuarnBase::slotFirst).
  bool slotFirst(Wrapper& out, IterHint& hint) const {
    return guardedRead([&] { return backend_->slotFirst(out, hint); }, false);
  }
  bool slotAt(Key const& key, Wrapper& out, IterHint& hint) const {
    return guardedRead([&] { return backend_->slotAt(key, out, hint); }, false);
  }
  bool slotNext(Key const& key, Wrapper& out, IterHint& hint) const {
    return guardedRead([&] { return backend_->slotNext(key, out, hint); }, false);
  }
  std::uint32_t members() const { return backend_->members(); }

  // Reports corruption met while using the table: traced at error level, and a reading table
  // records it for the writer in the corruption file, followed by " (fenixId:<id>)", the
  // incarnation the fenix file names (the writer validates each report that differs from the
  // last one it handled, so the same damage met again in a later incarnation is heard again).
  // Once per incident: a report equal to the last one is neither traced nor written again.
  void corruptionDetected(std::string const& text) const;

  bool initialized() const noexcept { return initialized_; }
  QuarnType mode() const noexcept { return mode_; }
  bool isLocal() const noexcept { return local_; }
  // A live back end (not the placeholder) is installed.
  bool mounted() const noexcept { return mounted_; }
  bool fullyAttached() const { return mounted_ && backend_->fullyAttached(); }
  bool notificationsOn() const noexcept { return notifying_; }
  // Names (or renames) the table; refused once initialised, when its files are in use.
  void nameIs(std::string name) {
    if (initialized_) {
      throw Jorv::InvalidInitializeException("QuarnMap::nameIs() " + name_ +
                                             " already initialized");
    }
    name_ = std::move(name);
    root_ = RootPath(name_, rootDir_);
  }
  Notifier* notifier() const noexcept { return notifier_; }
  void notifierIs(Notifier* notifier) noexcept { notifier_ = notifier; }
  Jorv::DebugHandler& debugHandler() const noexcept { return *dh_; }
  ReaderMounter* readerMounter() const noexcept { return readerMounter_.get(); }
  std::uint32_t remountTimeouts() const {
    return readerMounter_ ? readerMounter_->remountTimeouts() : 0;
  }
  // The remount timer's interval for mounters created from now on (tests shorten it).
  void remountIntervalIs(double seconds) noexcept { remountInterval_ = seconds; }
  // Makes a reading table passive (see above), polling the queue every `pollInterval` seconds
  // (> 0). Refused once initialised.
  void passiveIs(double pollInterval) {
    if (initialized_ || !(pollInterval > 0)) {
      throw Jorv::InvalidInitializeException("QuarnMap::passiveIs() " + name_ +
                                             (initialized_ ? " already initialized"
                                                           : " needs a poll interval above 0"));
    }
    pollInterval_ = pollInterval;
  }
  bool passive() const noexcept { return pollInterval_ > 0; }
  // The mode of the files a writer creates for this table ("slots", "buckets", the notification
  // tables, "fenix", "last-owner"), applied exactly: set it before `init` in writer mode. The
  // default, Mem::defaultFileMode (0644), lets every user read the table and only the owner
  // write it; 0640 limits the readers to the owner's group, 0600 to the owner. Readers need read
  // access to every file. Files that already exist keep their mode.
  void fileModeIs(unsigned mode) noexcept { fileMode_ = mode; }
  unsigned fileMode() const noexcept { return fileMode_; }

 protected:
  // Until `init`, the front writes to and reads from `writer`, an in-process (local) table of the
  // caller's making, as if it were initialised as a local writer; `init` replaces it with the
  // back end of its mode. A stand-in is detached like any writer (`controlDetach`).
  void standInIs(std::unique_ptr<WriterBackend<Key, Wrapper>> writer) {
    if (initialized_) throw Jorv::InvalidInitializeException("QuarnMap::standInIs() " + name_);
    install(std::move(writer), true);
    standIn_ = true;
  }

 private:
  using Base = QuarnBase<Key, Wrapper>;
  using Dummy = QuarnBaseDummy<Key, Wrapper>;
  using Writer = QuarnWriter<Key, Wrapper>;

  // Hands keys from the back end to the notifier while notifications are on.
  struct Forward final : KeyNotifier<Key> {
    explicit Forward(QuarnMap& map) : map(map) {}
    void onKey(Key const& key) override {
      if (map.notifier_ != nullptr && map.notifying_) map.notifier_->onKey(key);
    }
    QuarnMap& map;
  };
  // The map as its reader mounter sees it.
  struct Mount final : ReaderMounter::Table {
    explicit Mount(QuarnMap& map) : map(map) {}
    bool notifyingOn() const override { return map.notifying_; }
    std::uint32_t mountedFenix() const override { return map.backend_->fenixId(); }
    bool mounted() const override { return map.mounted_; }
    bool fullyAttached() const override { return map.fullyAttached(); }
    void remount() override { map.remount(); }
    void wake() override { map.backend_->connectNow(); }
    std::string attachFailure() const override { return map.attachFailure_; }
    QuarnMap& map;
  };

  bool readingMode(QuarnType mode) const noexcept {
    return mode == QuarnType::shadow || mode == QuarnType::reader || mode == QuarnType::keyshadow;
  }
  void refuseUnlessWriter(char const* message) const {
    if (initialized_ ? mode_ != QuarnType::writer : !standIn_) throw Jorv::Exception(message);
  }
  Writer& writerOrRefuse(char const* message) {
    refuseUnlessWriter(message);
    if (writer_ == nullptr) {
      throw Jorv::RuntimeException("QuarnMap: table " + name_ + " is detached");
    }
    return writer_->writer();
  }
  template <class F>
  decltype(auto) guardedWrite(char const* op, F&& f) {
    try {
      // Damage met since the last write (by a lookup, say) is recovered from first.
      if (writer_ != nullptr && writer_->writer().damageNoticed()) {
        recoverWriter(std::string("QuarnMap::") + op + "() files truncated under the writer");
      }
      return f();
    } catch (CorruptionDetectedException const& e) {
      corruptionDetected(e.what());
      recoverWriter(e.what());
      throw Jorv::RuntimeException(std::string("QuarnMap::") + op + "() in no man's land");
    }
  }
  // A writer whose files are damaged starts a new incarnation (QuarnWriter::recover). Called from
  // writes and from the mounter's handler: a failure is traced, never raised, and the next write
  // or report tries again.
  void recoverWriter(std::string const& why) {
    if (writer_ == nullptr) return;
    try {
      writer_->writer().recover(why);
    } catch (std::exception const& e) {
      KIV_TRACE(*dh_, 0, "QuarnMap::recoverWriter() ", name_, ": ", e.what());
    }
  }
  template <class F, class R>
  R guardedRead(F&& f, R empty) const {
    try {
      return f();
    } catch (CorruptionDetectedException const& e) {
      corruptionDetected(e.what());
      return empty;
    }
  }
  void install(std::unique_ptr<Base> backend, bool live);
  void remount();
  void applyControls() const {
    backend_->notifying(notifying_);
    if (yieldTime_ >= 0) backend_->yieldTimeIs(yieldTime_);
    if (sample_ != 0) backend_->sampleIs(sample_);
  }

  std::string name_;
  std::string rootDir_;
  RootPath root_;
  Kiv::Activity& activity_;
  Notifier* notifier_;
  Forward forward_{*this};
  Mount mount_{*this};
  Jorv::DebugHandler* dh_;
  bool initialized_ = false;
  bool standIn_ = false;  // a stand-in writer was installed before `init` (see standInIs)
  QuarnType mode_ = QuarnType::writer;
  bool local_ = false;
  std::uint32_t size_ = 0;
  unsigned fileMode_ = Mem::defaultFileMode;
  bool mounted_ = false;
  mutable bool notifying_ = true;
  mutable double yieldTime_ = -1;  // < 0: the back end's default
  mutable std::uint32_t sample_ = 0;
  double remountInterval_ = ReaderMounter::defaultRemountInterval;
  double pollInterval_ = 0;  // > 0: passive (see passiveIs)
  // Why the last attach failed, or the last corruption met since; empty after a mount.
  mutable std::string attachFailure_;
  mutable std::string lastReport_;  // the last corruption report, traced and written once
  std::unique_ptr<Base> backend_;
  WriterBackend<Key, Wrapper>* writer_ = nullptr;  // backend_ while it is the writer
  std::unique_ptr<WriterMounter> writerMounter_;
  std::unique_ptr<ReaderMounter> readerMounter_;  // last: it calls into everything above
};

// ---- implementation

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::install(std::unique_ptr<Base> backend, bool live) {
  backend_ = std::move(backend);
  mounted_ = live;
  writer_ = live ? dynamic_cast<WriterBackend<Key, Wrapper>*>(backend_.get()) : nullptr;
  applyControls();
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::init(QuarnType mode, bool isLocal, unsigned size) {
  std::string const word = quarnTypeWord(mode);
  KIV_TRACE(*dh_, 3, "QuarnMap::init() name:", name_, " mode:", word, " isLocal:", isLocal,
            " size:", size);
  if (initialized_) {
    std::string const text = "QuarnMap::init() name: " + name_ +
                             " already initialized with mode: " + quarnTypeWord(mode_) +
                             " size: " + std::to_string(size_) +
                             " local: " + (local_ ? "true" : "false");
    KIV_TRACE(*dh_, 3, text);
    if (mode == mode_ && isLocal == local_ && (mode != QuarnType::writer || size == size_)) return;
    throw Jorv::InvalidInitializeException(text);
  }
  if (mode == QuarnType::writer && size == 0) {
    throw Jorv::Exception("QuarnMap::init() 0 is not a valid initialization size for collection " +
                          name_ + " in writer mode");
  }
  if (mode != QuarnType::writer && !readingMode(mode)) {
    throw Jorv::Exception("QuarnMap::init() not a valid reader type:" + word);
  }
  Jorv::DebugHandler& dh = Jorv::Platform::getDebugHandler(quarnDebugHandlerName(name_, mode));
  if (readingMode(mode)) {
    // Fields first: the mounter's first event (from the activity) reads them.
    dh_ = &dh;
    mode_ = mode;
    local_ = isLocal;
    size_ = size;
    install(std::make_unique<Dummy>(dh, mode), false);
    standIn_ = false;
    try {
      readerMounter_ = std::make_unique<ReaderMounter>(dh, name_, root_.str(), word, mount_,
                                                       remountInterval_, activity_);
    } catch (Jorv::Exception const& e) {
      KIV_TRACE(dh, 0, "ReaderMounter unable to initialize mounterSm ", e.what());
      dh_ = &Jorv::Platform::getDebugHandler("Quarn/QuarnMap");
      mode_ = QuarnType::writer;
      local_ = false;
      size_ = 0;
      install(std::make_unique<Dummy>(*dh_, QuarnType::writer), false);
      throw Jorv::RuntimeException("ReaderMounter unable to initialize mounterSm");
    }
    initialized_ = true;
    return;
  }
  std::unique_ptr<WriterBackend<Key, Wrapper>> writer;
  std::string cause;
  try {
    writer = std::make_unique<WriterBackend<Key, Wrapper>>(
        dh, name_, size, isLocal, Jorv::typeName<Wrapper>(), rootDir_, activity_, fileMode_);
    writer->initialize();
  } catch (Jorv::Exception const& e) {
    cause = e.what();
    writer.reset();
  }
  // The caller learns why (another live writer, no space left on device, ...) and decides.
  if (writer == nullptr) {
    throw Jorv::RuntimeException("QuarnMap::init() failed to initialize collection " + name_ +
                                 ": " + cause);
  }
  std::unique_ptr<WriterMounter> mounter;
  if (!isLocal) {
    auto* w = &writer->writer();
    try {
      mounter = std::make_unique<WriterMounter>(
          dh, root_.str(), [w] { return w->validate(); },
          [this](std::string const& why) { recoverWriter(why); }, [w] { return w->fenix(); },
          activity_, fileMode_);
    } catch (Jorv::Exception const& e) {
      KIV_TRACE(dh, 0, "WriterMounter::WriterMounter() ", e.what());
      throw Jorv::RuntimeException(
          "WriterMounter::WriterMounter() unable to initialize mounterSm for rootPath: " +
          root_.str());
    }
  }
  dh_ = &dh;
  mode_ = mode;
  local_ = isLocal;
  size_ = size;
  install(std::move(writer), true);
  standIn_ = false;
  writerMounter_ = std::move(mounter);
  initialized_ = true;
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::attach() {
  if (!initialized_) {
    KIV_TRACE(*dh_, 3, "QuarnMap::attach() ", name_, " not initialized");
    return;
  }
  if (mode_ == QuarnType::writer) {
    KIV_TRACE(*dh_, 3, "QuarnMap::attach() invoked for a writer");
    return;
  }
  if (mode_ != QuarnType::reader && notifier_ == nullptr) {
    KIV_TRACE(*dh_, 1, "QuarnMap::attach() notify not set");
    attachFailure_ = "QuarnMap::attach() notify not set";
    return;
  }
  if (mounted_) detach();
  CorruptionHandler report = [this](std::string const& text) { corruptionDetected(text); };
  std::unique_ptr<Base> backend;
  if (mode_ == QuarnType::reader) {
    backend = std::make_unique<ReaderBackend<Key, Wrapper>>(
        *dh_, root_.str(), forward_, std::move(report), activity_, pollInterval_);
  } else {
    backend = makeQuarnShadow<Key, Wrapper>(*dh_, root_.str(), mode_, forward_, activity_,
                                            std::move(report), pollInterval_);
  }
  KIV_TRACE(*dh_, 3, "QuarnMap::attach() attempting to attach ", name_, " as ",
            quarnTypeWord(mode_));
  if (backend == nullptr) {
    KIV_TRACE(*dh_, 1, "QuarnMap::attach() initialize failed for ", name_);
    attachFailure_ = "QuarnMap::attach() initialize failed for " + name_;
    return;
  }
  // Installed before it initialises: the keys it reports during its first pass are looked up
  // by the notifier through this map, so they must already find this back end.
  install(std::move(backend), true);
  bool ok = false;
  std::string failure;
  try {
    ok = backend_->initialize();
    failure = backend_->initFailure();
  } catch (Jorv::Exception const& e) {
    KIV_TRACE(*dh_, 1, "QuarnMap::attach() ", name_, ": ", e.what());
    failure = e.what();
  }
  if (!ok) {
    KIV_TRACE(*dh_, 1, "QuarnMap::attach() initialize failed for ", name_);
    install(std::make_unique<Dummy>(*dh_, mode_), false);
    attachFailure_ =
        failure.empty() ? "QuarnMap::attach() initialize failed for " + name_ : failure;
    return;
  }
  attachFailure_.clear();
  KIV_TRACE(*dh_, 3, "QuarnMap::attach() successful");
}

// A new back end reports the keys it holds; the keys only the old one held are reported after
// it, so that the notifier, looking them up, learns that they are gone.
template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::remount() {
  std::vector<Key> previous;
  if (mounted_ && notifier_ != nullptr && notifying_) {
    try {
      backend_->heldKeys(previous);
    } catch (CorruptionDetectedException const& e) {
      corruptionDetected(e.what());  // the keys gathered so far are still reported
    }
  }
  detach();
  attach();
  for (Key const& key : previous) forward_.onKey(key);
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::detach() {
  if (!mounted_) {
    KIV_TRACE(*dh_, 5, "QuarnMap::detach()");
    return;
  }
  KIV_TRACE(*dh_, 3, "QuarnMap::detach() ", name_, " fenixId:", backend_->fenixId());
  backend_->detach();
  writerMounter_.reset();  // validates through the writer that goes now
  install(std::make_unique<Dummy>(*dh_, mode_), false);
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::controlDetach() {
  KIV_TRACE(*dh_, 3, "QuarnMap::controlDetach() ", name_);
  readerMounter_.reset();
  detach();
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::handleDisconnect() {
  if (readerMounter_ == nullptr) {
    KIV_TRACE(*dh_, 1, "ReaderMounter::handleDisconnect() wrong type:", quarnTypeWord(mode_));
    return;
  }
  readerMounter_->handleDisconnect();
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::corruptionDetected(std::string const& text) const {
  bool const reading = initialized_ && mode_ != QuarnType::writer;
  std::uint32_t const fenix = reading ? FenixFile::read(root_.str()) : backend_->fenixId();
  std::string const report = text + " (fenixId:" + std::to_string(fenix) + ")";
  if (report == lastReport_) {
    KIV_TRACE(*dh_, 5, "QuarnMap::corruptionDetected() again ", text);
    return;
  }
  lastReport_ = report;
  // A passive table belongs to a tool that reports what it finds itself.
  KIV_TRACE(*dh_, passive() ? 1 : 0, "QuarnMap::corruptionDetected() ", text);
  if (reading) {
    attachFailure_ = report;
    if (!passive()) Util::writeCorruptionFile(root_.str(), report);
  }
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::notifying(bool on) const {
  KIV_TRACE(*dh_, 3, "QuarnMap::notifying() ", name_, " notifying:", on);
  if (on) KIV_TRACE(*dh_, 3, "Notifications enabled");
  bool const was = notifying_;
  notifying_ = on;
  backend_->notifying(on);
  // Mounter events were ignored meanwhile: look again.
  if (on && !was && readerMounter_ != nullptr) readerMounter_->notify("notifications-enabled");
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::yieldTimeIs(double const& seconds) const {
  KIV_TRACE(*dh_, 3, "QuarnMap::yieldTimeIs() ", name_, " yieldTime:", seconds);
  yieldTime_ = seconds;
  backend_->yieldTimeIs(seconds);
}

template <class Key, class Wrapper, class Notifier>
void QuarnMap<Key, Wrapper, Notifier>::sampleIs(unsigned sample) const {
  KIV_TRACE(*dh_, 3, "QuarnMap::sampleIs() ", name_, " sample:", sample);
  sample_ = sample;
  backend_->sampleIs(sample);
}

template <class Key, class Wrapper, class Notifier>
QuarnMap<Key, Wrapper, Notifier>::~QuarnMap() {
  KIV_TRACE(*dh_, 3, "QuarnMap::~QuarnMap() deleting state");
  readerMounter_.reset();
  writerMounter_.reset();
  backend_->detach();
}

}  // namespace Quarn

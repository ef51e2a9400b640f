// FSEventStream on inotify.
//
// A stream has a reader thread, which alone uses the table of watched folders. It sets the watches
// as soon as the stream is made, beside whatever its maker does before starting it; Start waits for
// them. The reader drains the kernel's queue at all times, cuts a batch when one is due and the
// last one has been delivered, and signals the run loop, whose thread calls the callback. No lock
// is held meanwhile, and none while the reader asks the kernel.
//
// What a batch promises: folders are named by the watched path as given, the way down and a final
// "/"; a folder is named once, or twice in a row when it both lost and gained entries, since the
// callback compares one side at a time; folders that gained entries are met first, parents before
// children, so that new folders come out before their contents and the destination of a move before
// its source; what changed in a folder that moved comes in the batch after the move. The watched
// folder's own going, coming or replacement is one event with the root-changed flag and ID 0, alone
// in its batch; by then a new root is watched, and what was pending below the old one is dropped.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <filesystem>
#include <future>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "CoreFoundation.h"
#include "CoreServices/CoreServices.h"
#include "FileStatus.h"
#include "Folder.h"
#include "Inotify.h"
#include "Latency.h"
#include "MountTable.h"
#include "RootChain.h"
#include "RunLoop.h"
#include "StreamExtension.h"
#include "ThreadSafety.h"
#include "WatchTable.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kRootPolling(1000);  // where the way to the root cannot be watched
constexpr milliseconds kVisitPause(100);    // folders without a watch are visited in slices,
constexpr milliseconds kVisitBudget(7);     // each at most this long,
constexpr milliseconds kVisitRound(10000);  // all of them in this time, if the budget allows
constexpr milliseconds kMoveWait(2);        // for the second half of a move
constexpr milliseconds kNap(4);             // between reads while events keep coming

std::string withoutFinalSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

// What stands at the root's path; unknown when that cannot be told now.
struct Root {
  enum class Kind { missing, folder, unreadable, other, unknown };
  Kind kind = Kind::missing;
  FileIdentity identity;
  OpenFolder folder;
};

Root lookAt(const std::string& path) {
  Root root;
  root.folder = OpenFolder(path, true);
  if (root.folder.isOpen()) {
    root.identity = identityOf(root.folder);
    root.kind = root.identity == FileIdentity() ? Root::Kind::unknown : Root::Kind::folder;
    return root;
  }
  // Whatever it is can be told without being read.
  const Descriptor there(open(path.c_str(), O_PATH | O_CLOEXEC));
  const std::optional<FileStatus> status =
      there.isOpen() ? readStatus(there.number(), "") : std::nullopt;
  if (root.folder.failure() == Failure::passing ||
      (!status && failureOf(errno) == Failure::passing)) {
    root.kind = Root::Kind::unknown;
  } else if (status) {
    root.kind = status->isFolder ? Root::Kind::unreadable : Root::Kind::other;
    root.identity = status->identity;
  }
  return root;
}

// The clock that file systems take their times from.
timespec coarseNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now;
}

bool waitFor(int descriptor, milliseconds time) {
  pollfd wanted{descriptor, POLLIN, 0};
  return poll(&wanted, 1, static_cast<int>(time.count())) > 0;
}

}  // namespace

struct __FSEventStream {
 public:
  __FSEventStream(FSEventStreamCallback callback, const std::string& path, CFTimeInterval latency);
  ~__FSEventStream();
  __FSEventStream(const __FSEventStream&) = delete;
  __FSEventStream& operator=(const __FSEventStream&) = delete;

  // The thread that made the stream.
  void Schedule(CFRunLoopRef loop);
  bool Start();
  void Stop();
  void Invalidate();

  // The run loop's thread.
  void NameAgain(const std::string& path) EXCLUDES(lock_);
  bool NamesBehind(size_t event, std::vector<std::string>& names) const;

 private:
  struct Batch {
    std::vector<NamedFolder> folders;
    bool isRoot = false;
  };

  // The run loop's thread.
  void Deliver() EXCLUDES(lock_);
  void ThrowFailure() EXCLUDES(lock_);

  // The reader thread.
  void RunReader() EXCLUDES(lock_);
  void Read() EXCLUDES(lock_);
  void WatchAll();
  void Wait();
  void ReadEvents();
  void VisitUnwatched();
  void RetryUnopened();
  void ReadMounts();
  void ExamineMounts();
  void NoteMounts();
  std::string BelowRoot() const;
  void CutIfDue() EXCLUDES(lock_);
  bool IsRootSame(const Root& now);
  void WatchRoot(Root now);
  std::vector<std::string> TakeAgain() EXCLUDES(lock_);
  bool IsDelivering() EXCLUDES(lock_);
  void HandOver(Batch batch) EXCLUDES(lock_);
  void Wake();

  // Constant after construction, but for the loop.
  const timespec created_ = coarseNow();
  const FSEventStreamCallback callback_;
  const std::string path_;
  const std::shared_ptr<RunLoopSource> source_;
  CFRunLoopRef loop_ = nullptr;  // not the reader's until the stream is started

  // The reader's, once it runs.
  WatchTable table_;
  RootChain chain_;
  Latency latency_;
  Root::Kind rootKind_ = Root::Kind::missing;
  FileIdentity rootIdentity_;
  bool isRootInDoubt_ = false;
  bool isRootAstray_ = false;   // perhaps: its path may have led elsewhere for a while
  bool isRootOther_ = false;    // than when the stream was made
  bool wasDelivering_ = false;  // until EndDelivery
  bool wasRootAway_ = false;    // perhaps, and while a callback ran
  Clock::time_point nextRootLook_;
  std::optional<Clock::time_point> nextVisit_;
  Clock::time_point nextRetry_;  // at the earliest
  MountTable mounts_;
  MountTable::Mounts mounted_;  // and unmounted, to be looked at

  Descriptor wake_;
  std::promise<void> watchesSet_;
  std::atomic<bool> isStarted_ = false;
  std::atomic<bool> isStopping_ = false;
  std::thread reader_;

  // Handed from the reader to the run loop.
  Mutex lock_;
  Batch batch_ GUARDED_BY(lock_);
  bool isDelivering_ GUARDED_BY(lock_) = false;
  std::vector<std::string> again_ GUARDED_BY(lock_);  // paths to name, the other way round
  std::exception_ptr failure_ GUARDED_BY(lock_);  // what ended the reader, such as want of memory

  // The run loop's thread only.
  FSEventStreamEventId lastId_ = 0;
  const Batch* delivered_ = nullptr;  // while the callback runs
};

__FSEventStream::__FSEventStream(FSEventStreamCallback callback, const std::string& path,
                                 CFTimeInterval latency)
    : callback_(callback),
      path_(withoutFinalSlash(path)),
      source_(std::make_shared<RunLoopSource>()),
      chain_(path_),
      latency_(
          std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(latency))) {
  source_->perform = [this] { Deliver(); };
  const Root root = lookAt(path_);
  rootKind_ = root.kind;
  rootIdentity_ = root.identity;
  wake_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!table_.isOpen() || !wake_.isOpen()) return;
  try {
    reader_ = std::thread(&__FSEventStream::RunReader, this);
  } catch (const std::system_error&) {
    return;  // not to be started
  }
}

__FSEventStream::~__FSEventStream() { Stop(); }

void __FSEventStream::Schedule(CFRunLoopRef loop) {
  loop_ = loop;
  loop_->Add(source_);
}

bool __FSEventStream::Start() {
  if (!reader_.joinable() || isStarted_) return false;
  watchesSet_.get_future().get();
  isStarted_ = true;
  ThrowFailure();
  Wake();
  return true;
}

void __FSEventStream::Stop() {
  isStopping_ = true;
  if (!reader_.joinable()) return;
  Wake();
  reader_.join();
}

void __FSEventStream::Invalidate() {
  if (loop_ != nullptr) std::exchange(loop_, nullptr)->Remove(source_);
}

void __FSEventStream::ThrowFailure() {
  const MutexLock lock(lock_);
  if (failure_ != nullptr) std::rethrow_exception(failure_);
}

void __FSEventStream::Deliver() {
  ThrowFailure();
  Batch batch;
  {
    const MutexLock lock(lock_);
    batch = std::exchange(batch_, {});
  }
  std::vector<const char*> paths;
  std::vector<FSEventStreamEventFlags> flags;
  std::vector<FSEventStreamEventId> ids;
  for (const NamedFolder& folder : batch.folders) {
    paths.push_back(folder.path.c_str());
    flags.push_back(folder.flags);
    ids.push_back(batch.isRoot ? 0 : ++lastId_);
  }
  delivered_ = &batch;
  callback_(this, nullptr, paths.size(), static_cast<void*>(paths.data()), flags.data(),
            ids.data());
  delivered_ = nullptr;
  {
    const MutexLock lock(lock_);
    isDelivering_ = false;
  }
  Wake();
}

void __FSEventStream::WatchAll() {
  chain_.Watch();
  Root now = lookAt(path_);
  if (now.kind == Root::Kind::unknown) now.kind = Root::Kind::missing;
  isRootOther_ = now.kind != rootKind_ || now.identity != rootIdentity_;
  isRootInDoubt_ = isRootOther_;
  WatchRoot(std::move(now));
  nextRootLook_ = Clock::now() + kRootPolling;
}

// The thread that runs the loop is the one to end the program.
void __FSEventStream::RunReader() {
  try {
    WatchAll();
  } catch (...) {
    watchesSet_.set_exception(std::current_exception());
    return;
  }
  try {
    watchesSet_.set_value();
    Read();
  } catch (...) {
    {
      const MutexLock lock(lock_);
      failure_ = std::current_exception();
    }
    if (isStarted_ && loop_ != nullptr) loop_->Signal(source_);
  }
}

void __FSEventStream::Read() {
  bool hasLookedBack = false;
  while (!isStopping_) {
    if (isStarted_ && !std::exchange(hasLookedBack, true)) table_.LookBack(created_);
    ReadEvents();
    VisitUnwatched();
    RetryUnopened();
    CutIfDue();
    Wait();
  }
}

// Looks at some of the folders that have no watch, when it is time.
void __FSEventStream::VisitUnwatched() {
  const auto count = static_cast<int64_t>(table_.UnwatchedCount());
  const Clock::time_point now = Clock::now();
  if (count == 0) {
    nextVisit_.reset();
    return;
  }
  const milliseconds pause = std::max(kVisitPause, kVisitRound / count);
  if (!nextVisit_) nextVisit_ = now + pause;
  if (now < *nextVisit_) return;
  const int64_t wanted = count * pause / kVisitRound + 1;
  // When watches are to be had again, one success is followed by the next.
  bool isSuccess = false;
  for (int64_t i = 0; (i < wanted || isSuccess) && Clock::now() < now + kVisitBudget; ++i) {
    isSuccess = table_.VisitNext();
  }
  nextVisit_ = Clock::now() + (isSuccess ? kVisitPause : pause);
  if (table_.HasChanges()) latency_.Want(Clock::now());
}

// Sleeps until the kernel has something, a batch is due, or the run loop is done with one.
void __FSEventStream::Wait() {
  std::optional<Clock::time_point> until;
  const auto atTheLatest = [&until](std::optional<Clock::time_point> time) {
    if (time) until = std::min(until.value_or(*time), *time);
  };
  if (!wasDelivering_ && isStarted_) atTheLatest(latency_.Due());
  atTheLatest(nextVisit_);
  if (const auto retry = table_.NextRetry()) atTheLatest(std::max(*retry, nextRetry_));
  if (chain_.NeedsPolling()) atTheLatest(nextRootLook_);
  int timeout = -1;
  if (until) {
    const auto left = std::chrono::ceil<milliseconds>(*until - Clock::now());
    timeout = static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
  }
  // While a batch is being gathered, events are read in portions instead of one by one. The
  // kernel's queue holds far more than come in that time.
  if (latency_.Due() && !isStopping_) {
    waitFor(wake_.number(), std::min(kNap, milliseconds(timeout < 0 ? kNap.count() : timeout)));
    timeout = std::max(timeout < 0 ? -1 : 0, timeout - static_cast<int>(kNap.count()));
  }
  std::array<pollfd, 4> wanted{{{table_.number(), POLLIN, 0},
                                {chain_.number(), POLLIN, 0},
                                {mounts_.number(), POLLPRI, 0},
                                {wake_.number(), POLLIN, 0}}};
  poll(wanted.data(), wanted.size(), timeout);
  if ((wanted[2].revents & POLLPRI) != 0) ReadMounts();
  uint64_t count = 0;
  while (read(wake_.number(), &count, sizeof count) > 0) {
  }
}

// Tries again to open some of the folders that could not be opened.
void __FSEventStream::RetryUnopened() {
  const Clock::time_point now = Clock::now();
  if (now < nextRetry_) return;
  while (Clock::now() < now + kVisitBudget && table_.RetryNext(now)) {
  }
  nextRetry_ = Clock::now() + kVisitPause;
  if (table_.HasChanges()) latency_.Want(Clock::now());
}

void __FSEventStream::ReadMounts() {
  mounted_.merge(mounts_.ReadChanges());
  isRootInDoubt_ = true;
}

// Looks at the places where something has been mounted or unmounted; again, while folders move, for
// they may not have been where the table has them.
void __FSEventStream::ExamineMounts() {
  if (mounted_.empty()) return;
  const std::string below = BelowRoot();
  for (const auto& [path, what] : mounted_) {
    if (path.starts_with(below)) table_.ExamineMount(path.substr(below.size()), what);
  }
  if (!table_.HaveFoldersMoved()) mounted_.clear();
  NoteMounts();
}

void __FSEventStream::NoteMounts() {
  mounted_.merge(mounts_.ReadChanges());
  if (mounted_.empty()) table_.ForgetMounts();
  const std::string below = BelowRoot();
  for (const auto& [path, what] : mounts_.mounts()) {
    if (path.starts_with(below)) table_.NoteMount(path.substr(below.size()), what);
  }
}

// What paths without links begin with below the watched folder; none does where that is missing.
std::string __FSEventStream::BelowRoot() const {
  std::error_code error;
  const std::string root = std::filesystem::canonical(path_, error).string();
  if (error) return "//";
  return root.ends_with('/') ? root : root + "/";
}

void __FSEventStream::NameAgain(const std::string& path) {
  {
    const MutexLock lock(lock_);
    again_.push_back(path);
  }
  Wake();
}

bool __FSEventStream::NamesBehind(size_t event, std::vector<std::string>& names) const {
  if (delivered_ == nullptr || !delivered_->folders.at(event).names) return false;
  names = *delivered_->folders[event].names;
  return true;
}

std::vector<std::string> __FSEventStream::TakeAgain() {
  const MutexLock lock(lock_);
  return std::exchange(again_, {});
}

void __FSEventStream::ReadEvents() {
  const Clock::time_point now = Clock::now();
  const bool isDelivered = wasDelivering_ && !IsDelivering();
  table_.Read();
  if (isDelivered) {
    wasDelivering_ = false;
    table_.EndDelivery();
  }
  for (const std::string& path : TakeAgain()) table_.NameAgain(path);
  const bool isWayChanged = chain_.Read();
  if (table_.TakeRootDoubt() || isWayChanged) isRootInDoubt_ = isRootAstray_ = true;
  if (chain_.NeedsPolling() && now >= nextRootLook_) {
    nextRootLook_ = now + kRootPolling;
    if (!IsRootSame(lookAt(path_))) isRootInDoubt_ = true;
  }
  if (isRootInDoubt_ && wasDelivering_) wasRootAway_ = true;
  if (isRootInDoubt_ || table_.HasChanges()) latency_.Want(now);
}

void __FSEventStream::CutIfDue() {
  if (!isStarted_ || wasDelivering_ || !latency_.IsDue(Clock::now())) return;
  if (table_.EndsInMove() && waitFor(table_.number(), kMoveWait)) table_.Read();
  if (std::exchange(isRootInDoubt_, false)) {
    chain_.Watch();
    Root now = lookAt(path_);
    if (now.kind == Root::Kind::unknown) {
      isRootInDoubt_ = true;
    } else if (std::exchange(isRootOther_, false) || !IsRootSame(now)) {
      WatchRoot(std::move(now));
      latency_.Reset();
      HandOver({{{path_, kFSEventStreamEventFlagRootChanged}}, true});
      return;
    } else {
      table_.NoteRoot(std::move(now.folder), std::exchange(isRootAstray_, false));
      // A callback that found it gone has to look again.
      if (std::exchange(wasRootAway_, false)) table_.NameRoot();
    }
  }
  ExamineMounts();
  Batch batch{table_.Cut(), false};
  latency_.Reset();
  if (!batch.folders.empty()) HandOver(std::move(batch));
  if (isRootInDoubt_ || !mounted_.empty() || table_.HasChanges()) latency_.Want(Clock::now());
}

// Whether the root is the one that the callback knows. A folder that cannot be read any more is
// still the same.
bool __FSEventStream::IsRootSame(const Root& now) {
  if (now.kind == Root::Kind::folder && rootKind_ == Root::Kind::folder) {
    return table_.ProbeRoot(now.folder);
  }
  if (now.kind == Root::Kind::unreadable && rootKind_ == Root::Kind::folder) {
    return now.identity == rootIdentity_;
  }
  if (now.kind == Root::Kind::unknown) return true;
  return now.kind == rootKind_ && now.identity == rootIdentity_;
}

void __FSEventStream::WatchRoot(Root now) {
  rootKind_ = now.kind;
  rootIdentity_ = now.identity;
  wasRootAway_ = false;
  isRootAstray_ = false;
  if (now.kind == Root::Kind::folder) {
    table_.WatchRoot(path_, std::move(now.folder));
    NoteMounts();
  } else {
    table_.Clear();
  }
}

bool __FSEventStream::IsDelivering() {
  const MutexLock lock(lock_);
  return isDelivering_;
}

void __FSEventStream::HandOver(Batch batch) {
  wasDelivering_ = true;
  table_.BeginDelivery();
  {
    const MutexLock lock(lock_);
    batch_ = std::move(batch);
    isDelivering_ = true;
  }
  if (loop_ != nullptr) loop_->Signal(source_);
}

void __FSEventStream::Wake() {
  const uint64_t one = 1;
  while (write(wake_.number(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

FSEventStreamRef FSEventStreamCreate(CFAllocatorRef /*allocator*/, FSEventStreamCallback callback,
                                     FSEventStreamContext* /*context*/, CFArrayRef paths,
                                     FSEventStreamEventId /*sinceWhen*/, CFTimeInterval latency,
                                     FSEventStreamCreateFlags /*flags*/) {
  if (paths == nullptr || paths->values.empty() || paths->values[0] == nullptr) return nullptr;
  try {
    const auto* path = static_cast<CFStringRef>(paths->values[0]);
    return std::make_unique<__FSEventStream>(callback, path->text, latency).release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void FSEventStreamScheduleWithRunLoop(FSEventStreamRef stream, CFRunLoopRef loop,
                                      CFRunLoopMode /*mode*/) {
  stream->Schedule(loop);
}

Boolean FSEventStreamStart(FSEventStreamRef stream) { return stream->Start(); }

bool nameAgain(FSEventStreamRef stream, const std::string& path) {
  stream->NameAgain(path);
  return true;
}

void watchFolder(FSEventStreamRef, const std::string&, const OpenFolder&) {}

bool namesBehind(ConstFSEventStreamRef stream, size_t event, std::vector<std::string>& names) {
  return stream != nullptr && stream->NamesBehind(event, names);
}

void FSEventStreamStop(FSEventStreamRef stream) { stream->Stop(); }

void FSEventStreamInvalidate(FSEventStreamRef stream) { stream->Invalidate(); }

void FSEventStreamRelease(FSEventStreamRef stream) {
  const std::unique_ptr<__FSEventStream> released(stream);
}

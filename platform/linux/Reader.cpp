#include "Reader.h"

#include <algorithm>
#include <utility>

#include "Folder.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kVisitPause(100);    // folders without a watch are visited in slices,
constexpr milliseconds kVisitBudget(7);     // each at most this long,
constexpr milliseconds kVisitRound(10000);  // all of them in this time, if the budget allows
constexpr milliseconds kMoveWait(2);        // for the second half of a move

}  // namespace

Reader::Reader(const std::string& path, Latency::Duration latency)
    : root_(path),
      table_(root_),
      probe_([this](const OpenFolder& folder) { return table_.ProbeRoot(folder); }),
      latency_(latency) {}

void Reader::Enter(const std::string& path, const OpenFolder& folder, Time now) {
  if (isEntered_) {
    table_.EnterScanned(path, folder);
  } else if (path == root_.path() && folder.isOpen()) {
    const Root::Sight sight = root_.Watch(now);
    if (sight.identity != identityOf(folder)) root_.NoteUnreported();
    table_.EnterRoot(path, folder);
    isEntered_ = true;
  }
}

void Reader::Start(Time now) {
  if (isEntered_) {
    table_.EndEntering();
    NoteMounts();
  } else {
    WatchRoot(root_.Watch(now));
  }
  isStarted_ = true;
}

std::optional<Reader::Batch> Reader::Step(Time now) {
  TakeIn(now);
  VisitUnwatched(now);
  RetryUnopened(now);
  if (root_.IsInDoubt() || table_.HasChanges()) latency_.Want(now);
  if (!AwaitCut(now)) return std::nullopt;
  moveWait_.reset();
  latency_.Reset();
  std::optional<Batch> batch = SettleRoot();
  if (!batch) {
    ExamineMounts();
    batch = Batch{table_.Cut(), false};
  }
  if (root_.IsInDoubt() || !mounted_.empty() || table_.HasChanges()) latency_.Want(now);
  if (batch->folders.empty()) return std::nullopt;
  isDelivering_ = true;
  table_.BeginDelivery();
  return batch;
}

std::optional<Reader::Time> Reader::NextWake() const {
  std::optional<Time> wake;
  const auto atTheLatest = [&wake](std::optional<Time> time) {
    if (time) wake = std::min(wake.value_or(*time), *time);
  };
  if (isStarted_ && !isDelivering_) atTheLatest(moveWait_ ? moveWait_ : latency_.Due());
  if (table_.HasUnread()) atTheLatest(Time());
  atTheLatest(nextVisit_);
  if (const auto retry = table_.NextRetry()) atTheLatest(std::max(*retry, nextRetry_));
  atTheLatest(root_.NextLook());
  return wake;
}

void Reader::NameAgain(const std::string& path) {
  table_.Read();  // where the callback found it
  table_.NameAgain(path);
}

void Reader::ReadMounts() {
  root_.Doubt();
  TakeInMounts();
  table_.Read();  // so that the folders are where the mount table has them
  PlaceMounts();
}

void Reader::TakeIn(Time now) {
  table_.Read();
  root_.Read(now, probe_);
  if (isDelivering_) root_.NoteCallback();
  if (!std::exchange(isDelivered_, false)) return;
  isDelivering_ = false;
  table_.EndDelivery();
}

// Looks at one of the folders that have no watch, when it is time.
void Reader::VisitUnwatched(Time now) {
  const auto count = static_cast<int64_t>(table_.UnwatchedCount());
  if (count == 0) {
    nextVisit_.reset();
    visitsEnd_.reset();
    return;
  }
  const milliseconds pause = std::max(kVisitPause, kVisitRound / count);
  if (!nextVisit_) nextVisit_ = now + pause;
  if (now < *nextVisit_) return;
  if (!visitsEnd_) {
    visitsEnd_ = now + kVisitBudget;
    visitsLeft_ = count * pause / kVisitRound + 1;
  }
  const bool isSuccess = table_.VisitNext();
  --visitsLeft_;
  // When watches can be set again, one success is followed by the next.
  if ((visitsLeft_ > 0 || isSuccess) && now < *visitsEnd_) return;
  visitsEnd_.reset();
  nextVisit_ = now + (isSuccess ? kVisitPause : pause);
}

// Tries again to open one of the folders that could not be opened.
void Reader::RetryUnopened(Time now) {
  if (now < nextRetry_) return;
  if (!retriesEnd_) retriesEnd_ = now + kVisitBudget;
  table_.RetryNext(now);
  const std::optional<Time> next = table_.NextRetry();
  if (next && *next <= now && now < *retriesEnd_) return;
  retriesEnd_.reset();
  nextRetry_ = now + kVisitPause;
}

// Whether a batch is to be cut now. It waits for the second half of a move, for a time.
bool Reader::AwaitCut(Time now) {
  if (!isStarted_ || isDelivering_ || !latency_.IsDue(now)) return false;
  if (!table_.EndsInMove()) return true;
  if (!moveWait_) moveWait_ = now + kMoveWait;
  return now >= *moveWait_;
}

// Ends a doubt about the root. Gives the root's own batch when it has changed.
std::optional<Reader::Batch> Reader::SettleRoot() {
  if (!root_.IsInDoubt()) return std::nullopt;
  Root::Finding finding = root_.Settle(probe_);
  if (finding.verdict == Root::Finding::Verdict::changed) {
    WatchRoot(std::move(finding.sight));
    return Batch{{{root_.path(), kFSEventStreamEventFlagRootChanged}}, true};
  }
  if (finding.verdict == Root::Finding::Verdict::same) {
    table_.NoteRoot(std::move(finding.sight.folder), finding.wasAstray);
    if (finding.wasMissed) table_.NameRoot();  // the callback has to look again
  }
  return std::nullopt;
}

void Reader::WatchRoot(Root::Sight sight) {
  if (sight.kind == Root::Kind::folder) {
    table_.WatchRoot(root_.path(), std::move(sight.folder));
    NoteMounts();
  } else {
    table_.Clear();
  }
}

// Looks at the places where something has been mounted or unmounted; again, while folders move, for
// they may not have been where the table has them.
void Reader::ExamineMounts() {
  if (mounted_.empty()) return;
  const std::string below = root_.RealPrefix();
  for (const auto& [path, what] : mounted_) {
    if (!path.starts_with(below)) continue;
    const bool isKnown = table_.ExamineMount(path.substr(below.size()), what);
    if (!isKnown && table_.HaveFoldersMoved()) root_.DoubtNames();
  }
  if (!table_.HaveFoldersMoved()) mounted_.clear();
  NoteMounts();
}

void Reader::NoteMounts() {
  TakeInMounts();
  PlaceMounts();
}

void Reader::TakeInMounts() {
  MountTable::Mounts changes = mounts_.ReadChanges();
  const std::string root = root_.RealPrefix();
  for (const auto& [path, what] : changes) {
    if (root.starts_with(path.ends_with('/') ? path : path + "/")) root_.DoubtNames();
  }
  mounted_.merge(changes);
}

void Reader::PlaceMounts() {
  if (mounted_.empty()) table_.ForgetMounts();
  const std::string below = root_.RealPrefix();
  for (const auto& [path, what] : mounts_.mounts()) {
    if (path.starts_with(below)) table_.NoteMount(path.substr(below.size()), what);
  }
}

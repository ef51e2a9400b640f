#include "Root.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "FileStatus.h"
#include "Folder.h"

namespace {

constexpr std::chrono::milliseconds kLookPause(1000);  // where the way down cannot be watched

}  // namespace

Root::Root(std::string path) : path_(std::move(path)), chain_(path_) { Accept(Look()); }

Root::Sight Root::Watch(Time now) {
  chain_.Watch();
  Sight sight = Look();
  if (sight.kind == Kind::unknown) sight.kind = Kind::missing;
  const bool isOther = sight.kind != kind_ || sight.identity != identity_;
  Accept(sight);
  if (isOther) doubts_ = kDoubt | kUnreported;
  nextLook_ = now + kLookPause;
  return sight;
}

void Root::Read(Time now, const Probe& probe) {
  switch (chain_.Read()) {
    case RootChain::Hit::none:
      break;
    case RootChain::Hit::attributes:
      Doubt();
      break;
    case RootChain::Hit::names:
      DoubtNames();
      break;
  }
  if (!chain_.NeedsPolling() || now < nextLook_) return;
  nextLook_ = now + kLookPause;
  if (!Confirm(Look(), probe)) Doubt();
}

std::optional<Root::Time> Root::NextLook() const {
  if (!chain_.NeedsPolling()) return std::nullopt;
  return nextLook_;
}

void Root::NoteCallback() {
  if (IsInDoubt()) doubts_ |= kMissed;
}

Root::Finding Root::Settle(const Probe& probe) {
  chain_.Watch();
  Finding finding{.sight = Look()};
  if (finding.sight.kind == Kind::unknown) return finding;
  if ((doubts_ & kUnreported) != 0 || !Confirm(finding.sight, probe)) {
    finding.verdict = Finding::Verdict::changed;
    Accept(finding.sight);
    return finding;
  }
  finding.verdict = Finding::Verdict::same;
  const uint8_t doubts = std::exchange(doubts_, 0);
  finding.wasAstray = (doubts & kAstray) != 0;
  finding.wasMissed = (doubts & kMissed) != 0;
  return finding;
}

std::string Root::RealPrefix() const {
  std::error_code error;
  const std::string real = std::filesystem::canonical(path_, error).string();
  if (error) return "//";
  return real.ends_with('/') ? real : real + "/";
}

Root::Sight Root::Look() const {
  Sight sight;
  sight.folder = OpenFolder(path_, true);
  if (sight.folder.isOpen()) {
    sight.identity = identityOf(sight.folder);
    sight.kind = sight.identity == FileIdentity() ? Kind::unknown : Kind::folder;
    return sight;
  }
  // The kind and identity of what cannot be read can be found out all the same.
  const Descriptor there(open(path_.c_str(), O_PATH | O_CLOEXEC));
  const std::optional<FileStatus> status =
      there.isOpen() ? readStatus(there.number(), "") : std::nullopt;
  if (sight.folder.failure() == Failure::passing ||
      (!status && failureOf(errno) == Failure::passing)) {
    sight.kind = Kind::unknown;
  } else if (status) {
    sight.kind = status->isFolder ? Kind::unreadable : Kind::other;
    sight.identity = status->identity;
  }
  return sight;
}

// False when something else than the known root was seen for certain. A folder that cannot be read
// any more is still the same.
bool Root::Confirm(const Sight& now, const Probe& probe) const {
  if (now.kind == Kind::unknown) return true;
  if (kind_ == Kind::folder && now.kind == Kind::folder) return probe(now.folder);
  const bool isSameKind =
      now.kind == kind_ || (kind_ == Kind::folder && now.kind == Kind::unreadable);
  return isSameKind && now.identity == identity_;
}

void Root::Accept(const Sight& now) {
  kind_ = now.kind;
  identity_ = now.identity;
  doubts_ = 0;
}

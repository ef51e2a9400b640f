#include "FSReconciliation.h"

#include <algorithm>
#include <utility>

#include "FSPaths.h"

namespace {

// The index, made at its first use.
const FSListingIndex& made(std::optional<FSListingIndex>& index, const FSEntries& entries,
                           FSListingIndex::Key key) {
  if (!index) index.emplace(entries, key);
  return *index;
}

}  // namespace

FSReconciliation::FSReconciliation(std::string key, FSTree& tree, FSTransit& transit,
                                   FSChangeEvents& log)
    : tree_(tree), transit_(transit), log_(log), key_(std::move(key)) {}

bool FSReconciliation::Run() {
  const FSListingPtr before = transit_.ListingAt(key_);
  FSListingBuilder listed;
  FSLook look = tree_.Read(key_, before != nullptr ? before->entries() : FSEntries(), listed);
  if (look.reading == FSReading::failed || (before == nullptr && !isReadable(look.reading))) {
    transit_.SetUnread(key_, look.reading);
    return false;
  }
  const FSTransit::Known known = transit_.LookUp(key_, look.reading != FSReading::absent);
  current_ = listed.entries();
  saved_ = known.listing->entries();
  Walk();
  const FSListingPtr listing = isEdited() ? MakeListing() : known.listing;
  look.isReported = listing->entries().count() == current_.count();
  transit_.SetCompared(key_, known, listing, look);
  return hasReported_ && !look.isReported;
}

bool FSReconciliation::RunOn(const FSNames& names) {
  std::optional<FSTree::Named> named = transit_.LookUpNames(key_, names);
  if (!named) return Run();
  current_ = named->current->entries();
  saved_ = named->saved->entries();
  Walk();
  const FSListingPtr entries = isEdited() ? MakeListing() : named->saved;
  named->look.isReported = entries->entries().count() == current_.count();
  transit_.SetComparedByNames(key_, names, entries, named->look);
  return hasReported_ && !named->look.isReported;
}

void FSReconciliation::Walk() {
  isCurrentSettled_.resize(current_.count());
  isSavedSettled_.resize(saved_.count());
  if (current_.count() > saved_.count()) {
    WalkCurrent();
  } else {
    WalkSaved();
  }
}

void FSReconciliation::WalkCurrent() {
  Position next = 0;  // of the saved entries, in the order of the current ones
  for (Position c = 0; c < current_.count(); ++c) {
    if (next < saved_.count() && current_.isEqual(c, saved_, next)) {
      ++next;
      continue;
    }
    const Position s = SavedByName().FirstNamed(current_.name(c));
    if (s != kNone) {
      SameName(c, s);
      next = s + 1;
    } else {
      Arrived(c);
    }
  }
}

void FSReconciliation::WalkSaved() {
  Position next = 0;  // of the current entries, in the order of the saved ones
  for (Position s = 0; s < saved_.count(); ++s) {
    if (isSavedSettled_[s]) continue;
    if (next < current_.count() && saved_.isEqual(s, current_, next)) {
      ++next;
      continue;
    }
    const Position c = CurrentByName().FirstNamed(saved_.name(s));
    if (c != kNone) {
      SameName(c, s);
      next = c + 1;
    } else if (NewNameOf(s) != kNone) {
      MoveChain(s);
    } else {
      Deleted(s);
    }
  }
}

void FSReconciliation::SameName(Position c, Position s) {
  if (isCurrentSettled_[c]) return;
  const FileStatus current = current_.status(c), saved = saved_.status(s);
  if (!current_.isSameFile(c, saved_, s)) {
    SameNameOtherFile(c, s);
  } else if (!current.isFolder && current.modified.tv_sec != saved.modified.tv_sec) {
    Changed(c, s);
  } else if (current.isFolder && (current.created.tv_sec != saved.created.tv_sec ||
                                  current.created.tv_nsec != saved.created.tv_nsec)) {
    if (!tree_.ReadAgain(FSPaths::join(key_, current_.name(c)))) return;
    Edit();
    edits_[s] = c;
  }
}

// The name is another file's now. Either of the two may have another name in this folder.
void FSReconciliation::SameNameOtherFile(Position c, Position s) {
  if (NewNameOf(s) != kNone) {
    MoveChain(s);
  } else if (const Position old = OldNameOf(c); old != kNone) {
    MoveChain(old);
    // With hard links, possibly to another name than this.
    if (!isCurrentSettled_[c]) SameNameOtherFile(c, s);
  } else if (current_.isFolder(c) != saved_.isFolder(s)) {
    Deleted(s);
    Created(c);
  } else {
    KeepName(c, s);
  }
}

// No deletion or creation is reported. The entry takes over the identity of what has its name now;
// otherwise a later move would be reported of another file.
void FSReconciliation::KeepName(Position c, Position s) {
  if (!current_.isFolder(c) && current_.modified(c).tv_sec != saved_.modified(s).tv_sec) {
    Changed(c, s);
    return;
  }
  if (current_.isFolder(c)) tree_.ReadAgain(FSPaths::join(key_, current_.name(c)));
  Edit();
  edits_[s] = c;
}

// The saved entry has another name. Where that was the name of an entry that has another name too,
// and so on, the renames go from the last to the first, so that none replaces what still moves.
// REQUIRES: NewNameOf(first) is not kNone.
void FSReconciliation::MoveChain(Position first) {
  Moves moves;
  bool isRing = false;
  for (Position s = first; s != kNone && !isRing;) {
    const Position c = NewNameOf(s);
    if (c == kNone) break;
    moves.emplace_back(c, s);
    isCurrentSettled_[c] = isSavedSettled_[s] = true;
    s = SavedByName().FirstNamed(current_.name(c));
    isRing = s == first;
    if (s != kNone && isSavedSettled_[s]) s = kNone;
  }
  if (isRing) {
    Ring(moves);
    return;
  }
  for (auto move = moves.rbegin(); move != moves.rend(); ++move) Renamed(move->first, move->second);
  // Another file may have taken the first one's name.
  const Position successor = CurrentByName().FirstNamed(saved_.name(first));
  if (successor != kNone) Arrived(successor);
}

// Each of the entries has the name of the next, and the last that of the first. As renames, the
// first would replace another; so renames are possible only where one entry is deleted before them
// and created after them. A folder would lose its contents by that.
void FSReconciliation::Ring(const Moves& ring) {
  const auto isFolder = [&](const auto& move) { return saved_.isFolder(move.second); };
  const auto file = std::find_if_not(ring.begin(), ring.end(), isFolder);
  if (file == ring.end() || std::none_of(ring.begin(), ring.end(), isFolder)) {
    for (const auto& [c, s] : ring) KeepName(CurrentByName().FirstNamed(saved_.name(s)), s);
    return;
  }
  Deleted(file->second);
  const auto last = static_cast<size_t>(file - ring.begin());
  for (size_t i = 1; i < ring.size(); ++i) {
    const auto& [c, s] = ring[(last + ring.size() - i) % ring.size()];
    Renamed(c, s);
  }
  Created(file->first);
}

void FSReconciliation::Changed(Position c, Position s) {
  FSResource current = Current(c);
  Log("* CHANGED %s \"%s\"", current);
  Report("change", std::move(current));
  Leave(saved_.name(s));
  Append(c);
}

void FSReconciliation::Renamed(Position c, Position s) {
  FSResource current = Current(c);

  // What had the new name is gone. A reader replaces a file by itself, but a folder has contents
  // to remove.
  const Position replaced = SavedByName().FirstNamed(current_.name(c));
  if (replaced != kNone && !isSavedSettled_[replaced] && saved_.isFolder(replaced)) {
    Deleted(replaced);
  }
  Leave(current_.name(c));

  Log("* RENAMED %s \"%s\"", current);
  current.oldPath = FSPaths::join(key_, saved_.name(s));
  Leave(saved_.name(s));
  Append(c);
  if (current.isFolder) transit_.MoveFolder(current.oldPath, current.path);
  Report("rename", std::move(current));
}

// The name is new, or what had it has left it.
void FSReconciliation::Arrived(Position c) {
  while (!isCurrentSettled_[c]) {
    const Position old = OldNameOf(c);
    if (old == kNone) {
      Created(c);
    } else {
      MoveChain(old);
    }
  }
}

void FSReconciliation::Created(Position c) {
  isCurrentSettled_[c] = true;
  FSResource current = Current(c);
  if (current.isFolder) transit_.AddFolder(current.path);
  Log("* CREATED %s \"%s\"", current);
  Report("create", std::move(current));
  Append(c);
}

void FSReconciliation::Deleted(Position s) {
  FSResource saved = Saved(s);
  isSavedSettled_[s] = true;
  if (saved.isFolder) transit_.RemoveFolder(saved.path);
  Log("* REMOVED %s \"%s\"", saved);
  Report("delete", std::move(saved));
  Edit();
  edits_[s] = kNone;
}

FSReconciliation::Position FSReconciliation::OldNameOf(Position c) {
  const Position first = SavedFiles().FirstOf(current_.identity(c), current_.isFolder(c));
  return FirstIn(SavedFiles(), first, nextSaved_,
                 [&](Position s) { return isSavedSettled_[s] || StillHasItsName(s); });
}

FSReconciliation::Position FSReconciliation::NewNameOf(Position s) {
  const Position first = CurrentFiles().FirstOf(saved_.identity(s), saved_.isFolder(s));
  return FirstIn(CurrentFiles(), first, nextCurrent_,
                 [&](Position c) { return isCurrentSettled_[c] || HadItsName(c); });
}

// The first position of a file, from this one on, that is not ruled out. What is ruled out stays
// so, and is skipped the next time: a file may have very many names.
template <typename IsOut>
FSReconciliation::Position FSReconciliation::FirstIn(const FSListingIndex& index, Position from,
                                                     std::vector<Position>& next, IsOut isOut) {
  if (from == kNone || !isOut(from)) return from;
  if (next.empty()) next.resize(index.size(), kNone);
  std::vector<Position> passed;
  Position at = from;
  while (at != kNone && isOut(at)) {
    passed.push_back(at);
    at = next[at] != kNone ? next[at] : index.NextOf(at);
  }
  // kNone means not searched yet, so the end is searched for again from the last of them.
  const Position after = at != kNone ? at : passed.back();
  for (const Position position : passed) {
    if (position != after) next[position] = after;
  }
  return at;
}

bool FSReconciliation::StillHasItsName(Position s) {
  const Position c = CurrentByName().FirstNamed(saved_.name(s));
  return c != kNone && current_.isSameFile(c, saved_, s);
}

bool FSReconciliation::HadItsName(Position c) {
  const Position s = SavedByName().FirstNamed(current_.name(c));
  return s != kNone && saved_.isSameFile(s, current_, c);
}

void FSReconciliation::Edit() {
  if (edits_.empty()) edits_.resize(saved_.count(), kStays);
}

// Takes every entry with the name out of the resulting listing, those just appended included.
void FSReconciliation::Leave(std::string_view name) {
  Edit();
  for (Position s = SavedByName().FirstNamed(name); s != kNone; s = SavedByName().NextNamed(s)) {
    edits_[s] = kNone;
  }
  if (appended_.empty()) return;
  for (Position c = CurrentByName().FirstNamed(name); c != kNone;
       c = CurrentByName().NextNamed(c)) {
    appendedAt_[c] = kNone;
  }
}

void FSReconciliation::Append(Position c) {
  if (appendedAt_.empty()) appendedAt_.resize(current_.count(), kNone);
  appendedAt_[c] = static_cast<Position>(appended_.size());
  appended_.push_back(c);
}

FSListingPtr FSReconciliation::MakeListing() const {
  FSListingBuilder builder;
  for (Position s = 0; s < saved_.count(); ++s) {
    const Position edit = edits_.empty() ? kStays : edits_[s];
    if (edit == kStays) {
      builder.Add(saved_, s);
    } else if (edit != kNone) {
      builder.Add(current_, edit);
    }
  }
  for (Position i = 0; i < appended_.size(); ++i) {
    if (appendedAt_[appended_[i]] == i) builder.Add(current_, appended_[i]);
  }
  return builder.Finish();
}

FSResource FSReconciliation::Current(Position c) const {
  return {current_.status(c), FSPaths::join(key_, current_.name(c))};
}

FSResource FSReconciliation::Saved(Position s) const {
  return {saved_.status(s), FSPaths::join(key_, saved_.name(s))};
}

void FSReconciliation::Report(const char* action, FSResource resource) {
  transit_.records.emplace_back(action, std::move(resource));
  hasReported_ = true;
}

void FSReconciliation::Log(const char* format, const FSResource& resource) {
  if (!log_.logging) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  log_.dolog(
      FSEventsTree::buildString(format, resource.isFolder ? "dir" : "file", resource.path.c_str()));
#pragma GCC diagnostic pop
}

const FSListingIndex& FSReconciliation::CurrentByName() {
  return made(currentByName_, current_, FSListingIndex::Key::name);
}

const FSListingIndex& FSReconciliation::CurrentFiles() {
  return made(currentFiles_, current_, FSListingIndex::Key::identity);
}

const FSListingIndex& FSReconciliation::SavedByName() {
  return made(savedByName_, saved_, FSListingIndex::Key::name);
}

const FSListingIndex& FSReconciliation::SavedFiles() {
  return made(savedFiles_, saved_, FSListingIndex::Key::identity);
}

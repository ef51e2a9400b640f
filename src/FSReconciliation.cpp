#include "FSReconciliation.h"

#include <memory>
#include <utility>

namespace {

FSChangedResource renameRecord(const FSResource& current, const FSPath& oldPath) {
  FSChangedResource record("rename", current);
  record.oldPath = oldPath.text();
  return record;
}

const FSResourceIndex& made(std::optional<FSResourceIndex>& index, const FSResourceList& list,
                            FSResourceIndex::Key key) {
  if (!index) index.emplace(list, key);
  return *index;
}

// A folder that the reader knows but that could not be read until now starts with an empty list.
const FSResourceList& savedListOf(const std::string& key, FSTree& tree) {
  static const FSResourceList none;
  if (tree.SavedList(key) == nullptr && tree.IsSavedFolder(key)) tree.SetSavedList(key, {});
  const FSResourceList* saved = tree.SavedList(key);
  return saved == nullptr ? none : *saved;
}

}  // namespace

FSReconciliation::FSReconciliation(const std::string& folder, FSTree& tree, FSChangeEvents& log,
                                   FSChangeList& batch)
    : tree_(tree),
      log_(log),
      batch_(batch),
      key_(FSTree::KeyOf(folder)),
      saved_(savedListOf(key_, tree)) {
  tree_.NoteRead(key_, tree_.ReadCurrentList(key_, current_));
  told_.resize(current_.size());
  gone_.resize(saved_.size());
  added_.resize(current_.size(), kNone);
}

void FSReconciliation::Run() {
  if (current_.size() > saved_.size()) {
    WalkCurrent();
  } else {
    WalkSaved();
  }
  if (!isEdited_) return;
  std::erase(list_, nullptr);
  list_.shrink_to_fit();
  if (tree_.SavedList(key_) != nullptr) {
    tree_.SetSavedList(key_, std::move(list_));
  } else {
    tree_.NoteCompared(list_);
  }
}

void FSReconciliation::WalkCurrent() {
  Position next = 0;  // of the saved entries, in the order of the current ones
  for (Position c = 0; c < current_.size(); ++c) {
    if (IsUnchanged(c, next)) {
      ++next;
      continue;
    }
    Position s = SavedByPath().FirstByPath(current_[c]->path);
    if (s != kNone) {
      SameName(c, s);
      next = s + 1;
    } else if (s = OldNameOf(c); s != kNone) {
      Renamed(c, s);
    } else {
      Created(c);
    }
  }
}

void FSReconciliation::WalkSaved() {
  Position next = 0;  // of the current entries, in the order of the saved ones
  for (Position s = 0; s < saved_.size(); ++s) {
    if (gone_[s]) continue;
    if (IsUnchanged(next, s)) {
      ++next;
      continue;
    }
    Position c = CurrentByPath().FirstByPath(saved_[s]->path);
    if (c != kNone) {
      SameName(c, s);
      next = c + 1;
    } else if (c = NewNameOf(s); c != kNone) {
      Renamed(c, s);
    } else {
      Deleted(s);
      list_[s] = nullptr;  // another entry with the path is met by itself
    }
  }
}

// Whether the positions hold one and the same record, which the listing takes over for what has not
// changed at all. Most entries are met like this, and need not be looked up.
bool FSReconciliation::IsUnchanged(Position c, Position s) const {
  return c < current_.size() && s < saved_.size() && current_[c] == saved_[s];
}

void FSReconciliation::SameName(Position c, Position s) {
  const FSResource& current = *current_[c];
  const FSResource& saved = *saved_[s];
  if (told_[c]) return;
  if (current.isFolder != saved.isFolder) {
    Deleted(s);
    Remove(saved.path);
    gone_[s] = true;
    Created(c);
  } else if (current.isFolder) {
    TakeIdentity(c, s);
  } else if (current.modified.tv_sec != saved.modified.tv_sec) {
    Changed(c);
  }
}

void FSReconciliation::Changed(Position c) {
  const FSResource& current = *current_[c];
  Log("* CHANGED %s \"%s\"", current);
  batch_.emplace_back("change", current);
  Remove(current.path);
  Add(c);
}

void FSReconciliation::Renamed(Position c, Position s) {
  const FSResourcePtr current = current_[c];
  const FSResourcePtr saved = saved_[s];

  // What had the new name is gone. A reader replaces a file by itself, but a folder has more to
  // take away.
  const Position replaced = SavedByPath().FirstByPath(current->path);
  if (replaced != kNone && !gone_[replaced] && saved_[replaced]->isFolder) Deleted(replaced);
  Leave(current->path);

  Log("* RENAMED %s \"%s\"", *current);
  batch_.push_back(renameRecord(*current, saved->path));
  Leave(saved->path);
  std::shared_ptr<FSSavedLists> lists;
  if (saved->isFolder) lists = tree_.TakeSavedLists(saved->path);
  Add(c);
  told_[c] = true;
  if (lists != nullptr && current->isFolder) {
    for (const FSResourcePtr& gone : tree_.PutSavedLists(*lists, current->path, current->path)) {
      batch_.emplace_back("delete", *gone);
    }
  }

  // Another file has taken the old name already.
  const Position successor = CurrentByPath().FirstByPath(saved->path);
  if (successor != kNone && !told_[successor]) Created(successor);
}

void FSReconciliation::Created(Position c) {
  const FSResource& current = *current_[c];
  // A listing may hold a name twice when entries move while it is read.
  if (CurrentByPath().FirstByPath(current.path) != c) return;
  batch_.emplace_back("create", current);
  Log("* CREATED %s \"%s\"", current);
  Add(c);
  told_[c] = true;
}

void FSReconciliation::Deleted(Position s) {
  const FSResourcePtr saved = saved_[s];
  batch_.emplace_back("delete", *saved);
  Log("* REMOVED %s \"%s\"", *saved);
  Edit();
  if (saved->isFolder) batch_.back().saved = tree_.TakeSavedLists(saved->path);
}

FSReconciliation::Position FSReconciliation::OldNameOf(Position c) {
  const FSResource& current = *current_[c];
  Position s = SavedByINode().FirstByINode(current.inode);
  while (s != kNone &&
         (gone_[s] || !isSameFile(*saved_[s], current) || IsNowAs(*saved_[s], saved_[s]->path))) {
    s = SavedByINode().NextByINode(s);
  }
  return s;
}

FSReconciliation::Position FSReconciliation::NewNameOf(Position s) {
  const FSResource& saved = *saved_[s];
  Position c = CurrentByINode().FirstByINode(saved.inode);
  while (c != kNone && (told_[c] || !isSameFile(*current_[c], saved) ||
                        IsSavedAs(*current_[c], current_[c]->path))) {
    c = CurrentByINode().NextByINode(c);
  }
  return c;
}

bool FSReconciliation::IsSavedAs(const FSResource& file, const FSPath& path) {
  const Position s = SavedByPath().FirstByPath(path);
  return s != kNone && isSameFile(*saved_[s], file);
}

bool FSReconciliation::IsNowAs(const FSResource& file, const FSPath& path) {
  const Position c = CurrentByPath().FirstByPath(path);
  return c != kNone && isSameFile(*current_[c], file);
}

// A folder in another one's place is not reported: its contents tell the difference when it is
// named. But its record must be the new folder's, or a later move would give the reader the wrong
// contents. While the old folder still stands here under a new name, the comparison that finds it
// there needs the record as it is.
void FSReconciliation::TakeIdentity(Position c, Position s) {
  if (isSameFile(*current_[c], *saved_[s])) return;
  for (Position other = CurrentByINode().FirstByINode(saved_[s]->inode); other != kNone;
       other = CurrentByINode().NextByINode(other)) {
    if (isSameFile(*current_[other], *saved_[s]) &&
        SavedByPath().FirstByPath(current_[other]->path) == kNone) {
      return;
    }
  }
  Edit();
  list_[s] = current_[c];
}

void FSReconciliation::Edit() {
  if (!std::exchange(isEdited_, true)) list_ = saved_;
}

void FSReconciliation::Add(Position c) {
  Edit();
  added_[c] = static_cast<Position>(list_.size());
  list_.push_back(current_[c]);
  if (current_[c]->isFolder) tree_.AddFolder(current_[c]->path);
}

// Takes every entry with the path out of the saved list, those just added included.
void FSReconciliation::Remove(const FSPath& path) {
  Edit();
  for (Position s = SavedByPath().FirstByPath(path); s != kNone; s = SavedByPath().NextByPath(s)) {
    list_[s] = nullptr;
  }
  if (const Position c = CurrentByPath().FirstByPath(path); c != kNone && added_[c] != kNone) {
    list_[added_[c]] = nullptr;
    added_[c] = kNone;
  }
}

// As Remove, and the walk passes over the saved entries with the path.
void FSReconciliation::Leave(const FSPath& path) {
  for (Position s = SavedByPath().FirstByPath(path); s != kNone; s = SavedByPath().NextByPath(s)) {
    gone_[s] = true;
  }
  Remove(path);
}

void FSReconciliation::Log(const char* format, const FSResource& resource) {
  if (!log_.logging) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  log_.dolog(FSEventsTree::buildString(format, resource.isFolder ? "dir" : "file",
                                       resource.path.str().c_str()));
#pragma GCC diagnostic pop
}

const FSResourceIndex& FSReconciliation::CurrentByPath() {
  return made(currentByPath_, current_, FSResourceIndex::Key::path);
}

const FSResourceIndex& FSReconciliation::CurrentByINode() {
  return made(currentByINode_, current_, FSResourceIndex::Key::inode);
}

const FSResourceIndex& FSReconciliation::SavedByPath() {
  return made(savedByPath_, saved_, FSResourceIndex::Key::path);
}

const FSResourceIndex& FSReconciliation::SavedByINode() {
  return made(savedByINode_, saved_, FSResourceIndex::Key::inode);
}

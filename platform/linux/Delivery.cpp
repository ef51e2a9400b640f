#include "Delivery.h"

void Delivery::NoteCut(KnownFolders named, KnownFolders announced) {
  named_ = std::move(named);
  announced_ = std::move(announced);
  isTreeNamed_ = false;
}

void Delivery::NoteMove(const KnownFolder& parent, const std::string& name) {
  if (isRunning_ && disturbed_.size() < kMostNames) disturbed_.emplace(parent.serial, name);
}

bool Delivery::NoteArrival(const KnownFolder& parent, const std::string& name) {
  if (!isRunning_) return false;
  return arrivals_.size() >= kMostNames || !arrivals_.emplace(parent.serial, name).second;
}

void Delivery::End(bool haveFoldersMoved, const KnownFolders& moved, KnownFolder* root) {
  isRunning_ = false;
  if (haveFoldersMoved) {
    named_.merge(announced_);
    for (KnownFolder* folder : named_) {
      if (IsDisturbed(*folder, moved)) Unsettle(*folder);
    }
    if (isTreeNamed_ && root != nullptr) Unsettle(*root);
  }
  named_.clear();
  announced_.clear();
  isTreeNamed_ = false;
  disturbed_.clear();
  arrivals_.clear();
}

void Delivery::Forget(KnownFolder& folder) {
  for (KnownFolders* folders : {&named_, &announced_, &unsettled_}) folders->erase(&folder);
}

// Whether the callback may have found another folder under the path.
bool Delivery::IsDisturbed(KnownFolder& folder, const KnownFolders& moved) const {
  if (disturbed_.size() >= kMostNames) return true;
  for (KnownFolder* at = &folder; at->parent != nullptr; at = at->parent) {
    if (moved.contains(at) || disturbed_.contains({at->parent->serial, at->name})) return true;
  }
  return false;
}

void Delivery::Unsettle(KnownFolder& folder) {
  unsettled_.insert(&folder);
  for (const auto& child : folder.children) Unsettle(*child);
}

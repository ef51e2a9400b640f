// The snapshot's view of the disk: which entries of a folder count, and what they are.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <set>

#include "FSPaths.h"
#include "FSTree.h"
#include "FileStatus.h"
#include "FolderEntries.h"

namespace {

// What the tool ignores: entries of this name, and files with these endings. (The folders that it
// stays out of: Utility::isAllowedPath.)
constexpr std::string_view kIgnoredName = ".DS_Store";
constexpr const char* kProhibitedSuffixes[] = {".tmp",
                                               ".temp",
                                               ".log",
                                               ".sys",
                                               ".---",
                                               ".###",
                                               ".$$$",
                                               ".cache",
                                               ".cache-2",
                                               ".cache-3",
                                               ".db",
                                               ".sqlite",
                                               ".sqlite3",
                                               ".db3",
                                               ".db-shm",
                                               ".db-wal",
                                               ".db$",
                                               ".db3-journal",
                                               ".download",
                                               ".downloaddownload",
                                               ".indexArrays",
                                               ".indexCompactDirectory",
                                               ".indexDirectory",
                                               ".indexPositions",
                                               ".indexPositionTable",
                                               ".sqlite3-journal",
                                               ".TemporaryItems",
                                               ".tmt"};

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// The name with the case of its ASCII letters changed; nothing where it has none, but others, whose
// case this does not know.
std::optional<std::string> inOtherCase(std::string name) {
  const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  if (std::ranges::none_of(name, isLetter) && !std::ranges::all_of(name, isAscii)) {
    return std::nullopt;
  }
  for (char& c : name) {
    if (isLetter(c)) c ^= 'a' ^ 'A';
  }
  return name;
}

// Adds the saved entries whose names are wanted and have not been read.
template <typename Wanted>
void keepSaved(const FSEntries& saved, Wanted isWanted, FSListingBuilder& current) {
  const FSListingPtr read = current.Finish();
  const FSListingIndex byName(read->entries(), FSListingIndex::Key::name);
  for (uint32_t i = 0; i < saved.count(); ++i) {
    const bool isRead = byName.FirstNamed(saved.name(i)) != FSListingIndex::kNone;
    if (!isRead && isWanted(saved.name(i))) current.Add(saved, i);
  }
}

}  // namespace

void FSTree::SetProhibitedSuffixes() {
  prohibitedSuffixes.assign(std::begin(kProhibitedSuffixes), std::end(kProhibitedSuffixes));
}

bool FSTree::isProhibited(std::string_view path) const {
  // Many names have no dot, which is found out most quickly from the front.
  if (path.empty() || std::memchr(path.data(), '.', path.size()) == nullptr) return false;
  const size_t dot = path.rfind('.');
  return std::find(prohibitedSuffixes.begin(), prohibitedSuffixes.end(), path.substr(dot)) !=
         prohibitedSuffixes.end();
}

FSResourcePtr FSTree::GetResource(const std::string& path) {
  const std::optional<FileStatus> status = readStatus(AT_FDCWD, path.c_str());
  return status ? std::make_shared<const FSResource>(*status, path) : nullptr;
}

FSLook FSTree::Read(const std::string& key, const FSEntries& saved,
                    FSListingBuilder& current) const {
  current.Clear();
  const OpenFolder folder(key, key == rootPath);
  if (!folder.isOpen()) return {readingOf(folder.failure()), {}};
  return {ReadFolder(folder, key, saved, current), IdentityOf(folder)};
}

FileIdentity FSTree::IdentityOf(const OpenFolder& folder) {
  const std::optional<FileStatus> status = readStatus(folder.number(), "");
  return status ? status->identity : FileIdentity{};
}

FSReading FSTree::ReadFolder(const OpenFolder& folder, const std::string& path,
                             const FSEntries& saved, FSListingBuilder& current) const {
  bool isPartial = false;
  std::set<std::string, std::less<>> unreadNames;
  bool isAtOnce = true;
  const auto examine = [&](const auto& entry) {
    const std::string_view name = entry.d_name;
    if (name == kIgnoredName) return;
    if (path.size() + 1 + name.size() >= PATH_MAX) return;
    const std::optional<FileStatus> status = readStatus(folder.number(), entry.d_name);
    if (!status) {
      const Failure failure = failureOf(errno);
      isPartial |= failure != Failure::absent;
      if (failure == Failure::passing) unreadNames.emplace(name);
    } else if (status->isFolder || !isProhibited(name)) {
      current.Add(name, *status);
    }
  };
  const bool isListed = eachEntry(folder.number(), examine, &isAtOnce);
  // Whatever the reason: a folder that could be opened may have what it had.
  const bool isCutOff = !isListed && failureOf(errno) != Failure::absent;
  if (!isAtOnce) current.KeepLastOfEachName();
  if (isCutOff || !unreadNames.empty()) {
    keepSaved(
        saved, [&](std::string_view name) { return isCutOff || unreadNames.contains(name); },
        current);
  }
  if (isCutOff || isPartial) return FSReading::partial;
  // A folder that is removed while it is open lists as empty.
  const bool isGone = current.entries().count() == 0 && !readStatus(AT_FDCWD, path.c_str());
  return isGone ? FSReading::absent : FSReading::whole;
}

bool FSTree::IsLarge(const std::string& key) {
  const Folder* const folder = FolderAt(key);
  return folder != nullptr && folder->listing->entries().count() >= fewestForNames;
}

std::optional<FSTree::Named> FSTree::ReadNames(const std::string& key, const FSNames& names) {
  const auto found = snapshot.find(key);
  if (found == snapshot.end() || retries.contains(key)) return std::nullopt;
  const uint32_t count = found->second.listing->entries().count();
  if (!AreFew(names.size(), count)) return std::nullopt;
  const OpenFolder folder(key, key == rootPath);
  if (!folder.isOpen()) return std::nullopt;
  const FileIdentity identity = IdentityOf(folder);
  if (identity == FileIdentity() || identity != found->second.identity) return std::nullopt;

  FSListingBuilder saved, current;
  for (const std::string& name : names) {
    if (const auto status = DraftOf(found->second).Find(name)) saved.Add(name, *status);
    if (name == kIgnoredName || key.size() + 1 + name.size() >= PATH_MAX) continue;
    const std::optional<FileStatus> status = readStatus(folder.number(), name.c_str());
    if (!status && failureOf(errno) != Failure::absent) return std::nullopt;
    if (!status || (!status->isFolder && isProhibited(name))) continue;
    // The file system may not distinguish capital letters from small ones: then this name can find
    // an entry whose name is written in another way.
    const std::optional<std::string> otherName = inOtherCase(name);
    if (!otherName) return std::nullopt;
    if (*otherName != name) {
      const std::optional<FileStatus> other = readStatus(folder.number(), otherName->c_str());
      if (other && other->identity == status->identity) return std::nullopt;
    }
    current.Add(name, *status);
  }
  return Named{saved.Finish(), current.Finish(), {FSReading::whole, identity}};
}

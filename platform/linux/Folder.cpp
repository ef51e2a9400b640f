#include "Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string_view>

#include "FileStatus.h"
#include "FolderEntries.h"

namespace {

// Nothing when that cannot be found out.
std::optional<bool> isFolder(int parent, const dirent64& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat status;
  if (fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return S_ISDIR(status.st_mode);
  }
  if (failureOf(errno) == Failure::passing) return std::nullopt;
  return false;
}

template <typename Visit>
bool eachEntryFromTheStart(const OpenFolder& folder, Visit visit) {
  lseek(folder.number(), 0, SEEK_SET);
  return eachEntry(folder.number(), visit);
}

// An empty name is the folder itself. A time without nanoseconds is taken for one kept in
// steps of up to two seconds.
bool isChangedSince(int folder, const char* name, const timespec& since) {
  struct stat status;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name == 0 ? AT_EMPTY_PATH : 0);
  if (fstatat(folder, name, &status, flags) != 0) return true;
  const timespec& changed = status.st_ctim;
  if (changed.tv_nsec == 0) return changed.tv_sec + 2 > since.tv_sec;
  return changed.tv_sec > since.tv_sec ||
         (changed.tv_sec == since.tv_sec && changed.tv_nsec >= since.tv_nsec);
}

}  // namespace

FileIdentity identityOf(const OpenFolder& folder) {
  const std::optional<FileStatus> status = readStatus(folder.number(), "");
  return status ? status->identity : FileIdentity();
}

bool isSameFolder(const OpenFolder& a, const OpenFolder& b) {
  struct stat one, other;
  return fstat(a.number(), &one) == 0 && fstat(b.number(), &other) == 0 &&
         one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

FolderListing listFolder(const OpenFolder& folder) {
  FolderListing listing;
  bool areKindsKnown = true;
  const bool isRead = eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    listing.isEmpty = false;
    const std::optional<bool> isSubfolder = isFolder(folder.number(), entry);
    areKindsKnown &= isSubfolder.has_value();
    if (isSubfolder.value_or(false)) listing.subfolders.emplace_back(entry.d_name);
  });
  listing.isWhole = isRead && areKindsKnown;
  return listing;
}

FolderChange changedSince(const OpenFolder& folder, const timespec& since) {
  FolderChange change;
  change.hasOtherEntries = isChangedSince(folder.number(), "", since);
  eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    // A subfolder's times move with what happens in it, which is not counted for this folder.
    if (change.hasWrittenEntries || isFolder(folder.number(), entry).value_or(true)) return;
    change.hasWrittenEntries = isChangedSince(folder.number(), entry.d_name, since);
  });
  return change;
}

uint64_t fingerprintOf(const OpenFolder& folder) {
  uint64_t sum = 0;
  eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    const std::optional<FileStatus> status = readStatus(folder.number(), entry.d_name);
    if (!status) return;
    uint64_t hash = std::hash<std::string_view>()(entry.d_name);
    hash = mixedWith(mixedWith(hash, status->identity.inode), status->identity.generation);
    if (!status->isFolder) {
      hash = mixedWith(hash, static_cast<uint64_t>(status->created.tv_sec));
      hash = mixedWith(hash, static_cast<uint64_t>(status->created.tv_nsec));
    }
    sum += hash;  // in whatever order they are listed
  });
  return sum;
}

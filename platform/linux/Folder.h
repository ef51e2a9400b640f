// A folder on the disk as the event stream sees it: its identity, its subfolders, and whether
// anything in it has changed. All of these take an open folder, so that the answer is that folder's
// wherever its path leads meanwhile. Any thread.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "FileIdentity.h"
#include "OpenFolder.h"

// The folder's identity; that of no folder, which equals no other's, when it cannot be read.
FileIdentity identityOf(const OpenFolder& folder);

// Whether two open folders are one, also by way of two mounts.
bool isSameFolder(const OpenFolder& a, const OpenFolder& b);

// What a folder holds, as far as the stream cares.
struct FolderListing {
  std::vector<std::string> subfolders;
  bool isEmpty = true;
  bool isWhole = true;  // else the folder could not be read to its end
};
FolderListing listFolder(const OpenFolder& folder);

// A number that changes when an entry of the folder comes, goes, is written or has its attributes
// changed, also where it comes and goes in between. Of subfolders only their coming and going
// counts.
uint64_t fingerprintOf(const OpenFolder& folder);

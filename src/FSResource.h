// The values that every other part passes around: what is known of one file or folder (FSResource),
// one change to report (FSChangedResource), and ordered lists of records with their lookups.
//
// Plain values, without a lock of their own. The records in lists are shared and immutable: the
// last owner frees them. What a folder held is kept in another form, see FSListing.h; records
// with their full path are made from it when somebody needs one.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "FileStatus.h"

// One file or folder as it was when it was examined.
struct FSResource {
  uint64_t inode;
  std::string path;
  bool isFolder;
  timespec created;         // last status change, not the birth time; only its seconds are used
  timespec modified;        // last data modification; only its seconds are used
  uint64_t size;            // bytes
  std::string oldPath;      // of a rename: the path before it; else empty
  uint64_t generation = 0;  // with the inode the file's identity (FileIdentity.h); never printed

  // The two times come in the reverse of their declared order.
  FSResource(uint64_t inode, std::string path, bool isFolder, timespec modified, timespec created,
             uint64_t size, std::string oldPath);
  FSResource(const FileStatus& status, std::string path);

  // What the record says of the file, without its path.
  FileStatus status() const { return {{inode, generation}, isFolder, modified, created, size}; }
};

// One change to report: an action word and a copy of the resource's fields. The words are "sync",
// "create", "delete", "rename", "change", "rootcreate" and "rootdelete".
struct FSChangedResource : FSResource {
  std::string action;

  FSChangedResource(std::string action, FSResource resource);
};

// The changes of one batch. They stay where they are while it grows.
using FSChangeList = std::deque<FSChangedResource>;

using FSResourcePtr = std::shared_ptr<const FSResource>;
using FSResourceList = std::vector<FSResourcePtr>;

// An ordered list of records. `count` always equals the length of `items`. A position that is not
// there is -1, a record that is not there null. Paths compare byte by byte.
struct FSResourceArray {
  FSResourceList items;
  uint32_t count = 0;

  FSResourceArray() = default;
  explicit FSResourceArray(FSResourceList list);

  void Append(FSResourcePtr resource);
  void Remove(const FSResourcePtr& resource);  // every entry that is this very record
  void AppendList(FSResourceList list);
  uint32_t Count() const { return count; }
  FSResourcePtr Get(unsigned int index) const;

  // The first entry with the record's path, or inode; no other field is compared.
  int32_t IndexOfByPath(const FSResource& resource) const;
  int32_t IndexOfByINode(const FSResource& resource) const;

  // The entries, in order, whose path equals, sorts after or sorts before the reference's, as
  // selected.
  FSResourceList CompareByPath(const FSResource& reference, bool selectEqual, bool selectGreater,
                               bool selectLess) const;
};

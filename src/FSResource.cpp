#include "FSResource.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <string_view>
#include <utility>

namespace {

// Inode numbers are often consecutive and often multiples; multiplying spreads both over the
// buckets.
size_t hashOf(uint64_t inode) { return (inode * 0x9E3779B97F4A7C15U) >> 20; }
size_t hashOf(const FSPath& path) { return std::hash<std::string>()(path.name()); }

int32_t position(const FSResourceList& items, FSResourceList::const_iterator found) {
  return found == items.end() ? -1 : static_cast<int32_t>(found - items.begin());
}

}  // namespace

FSResource::FSResource(uint64_t inode, FSPath path, bool isFolder, timespec modified,
                       timespec created, uint64_t size, std::string oldPath)
    : inode(inode),
      path(std::move(path)),
      isFolder(isFolder),
      created(created),
      modified(modified),
      size(size),
      oldPath(std::move(oldPath)) {}

FSResourcePtr withPath(const FSResource& resource, FSPath path) {
  auto moved = std::make_shared<FSResource>(resource);
  moved->path = std::move(path);
  return moved;
}

FSChangedResource::FSChangedResource(std::string action, const FSResource& resource)
    : action(std::move(action)),
      inode(resource.inode),
      path(resource.path),
      isFolder(resource.isFolder),
      created(resource.created),
      modified(resource.modified),
      size(resource.size),
      oldPath(resource.oldPath),
      birth(resource.birth) {}

FSResourceIndex::FSResourceIndex(const FSResourceList& list, Key key)
    : list_(list), heads_(std::bit_ceil(list.size() + 1), kNone), next_(list.size(), kNone) {
  for (size_t i = list.size(); i-- > 0;) {
    const size_t hash = key == Key::path ? hashOf(list[i]->path) : hashOf(list[i]->inode);
    uint32_t& head = heads_[hash & (heads_.size() - 1)];
    next_[i] = head;
    head = static_cast<uint32_t>(i);
  }
}

uint32_t FSResourceIndex::FirstByPath(const FSPath& path) const {
  return MatchPath(Bucket(hashOf(path)), path);
}

uint32_t FSResourceIndex::NextByPath(uint32_t position) const {
  return MatchPath(next_[position], list_[position]->path);
}

uint32_t FSResourceIndex::FirstByINode(uint64_t inode) const {
  return MatchINode(Bucket(hashOf(inode)), inode);
}

uint32_t FSResourceIndex::NextByINode(uint32_t position) const {
  return MatchINode(next_[position], list_[position]->inode);
}

uint32_t FSResourceIndex::MatchPath(uint32_t position, const FSPath& path) const {
  while (position != kNone && list_[position]->path != path) position = next_[position];
  return position;
}

uint32_t FSResourceIndex::MatchINode(uint32_t position, uint64_t inode) const {
  while (position != kNone && list_[position]->inode != inode) position = next_[position];
  return position;
}

FSResourceArray::FSResourceArray(FSResourceList list)
    : items(std::move(list)), count(static_cast<uint32_t>(items.size())) {}

void FSResourceArray::Append(FSResourcePtr resource) {
  items.push_back(std::move(resource));
  ++count;
}

void FSResourceArray::Remove(const FSResourcePtr& resource) {
  std::erase(items, FSResourcePtr(resource));  // a copy: the argument may stand in the list itself
  count = static_cast<uint32_t>(items.size());
}

void FSResourceArray::AppendList(FSResourceList list) {
  items.insert(items.end(), list.begin(), list.end());
  count += static_cast<uint32_t>(list.size());
}

FSResourcePtr FSResourceArray::Get(unsigned int index) const {
  return index < count ? items[index] : nullptr;
}

int32_t FSResourceArray::IndexOfByPath(const FSResource& resource) const {
  return position(items, std::find_if(items.begin(), items.end(), [&](const FSResourcePtr& item) {
                    return item->path == resource.path;
                  }));
}

int32_t FSResourceArray::IndexOfByINode(const FSResource& resource) const {
  return position(items, std::find_if(items.begin(), items.end(), [&](const FSResourcePtr& item) {
                    return item->inode == resource.inode;
                  }));
}

FSResourceList FSResourceArray::CompareByPath(const FSResource& reference, bool selectEqual,
                                              bool selectGreater, bool selectLess) const {
  FSResourceList selected;
  for (const FSResourcePtr& item : items) {
    const int order = item->path.str().compare(reference.path);
    if ((selectEqual && order == 0) || (selectGreater && order > 0) || (selectLess && order < 0)) {
      selected.push_back(item);
    }
  }
  return selected;
}

#include "FSResource.h"

#include <algorithm>
#include <utility>

namespace {

int32_t position(const FSResourceList& items, FSResourceList::const_iterator found) {
  return found == items.end() ? -1 : static_cast<int32_t>(found - items.begin());
}

}  // namespace

FSResource::FSResource(uint64_t inode, std::string path, bool isFolder, timespec modified,
                       timespec created, uint64_t size, std::string oldPath)
    : inode(inode),
      path(std::move(path)),
      isFolder(isFolder),
      created(created),
      modified(modified),
      size(size),
      oldPath(std::move(oldPath)) {}

FSResource::FSResource(const FileStatus& status, std::string path)
    : FSResource(status.identity.inode, std::move(path), status.isFolder, status.modified,
                 status.created, status.size, "") {
  generation = status.identity.generation;
}

FSChangedResource::FSChangedResource(std::string action, FSResource resource)
    : FSResource(std::move(resource)), action(std::move(action)) {}

FSResourceArray::FSResourceArray(FSResourceList list)
    : items(std::move(list)), count(static_cast<uint32_t>(items.size())) {}

void FSResourceArray::Append(FSResourcePtr resource) {
  items.push_back(std::move(resource));
  ++count;
}

void FSResourceArray::Remove(const FSResourcePtr& resource) {
  std::erase(items, FSResourcePtr(resource));  // a copy: the argument may be in the list itself
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
    const int order = item->path.compare(reference.path);
    if ((selectEqual && order == 0) || (selectGreater && order > 0) || (selectLess && order < 0)) {
      selected.push_back(item);
    }
  }
  return selected;
}

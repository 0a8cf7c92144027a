#pragma once

#include <cstddef>
#include <functional>

namespace corv {

// Work on whole folder trees through descriptors. No link is followed, whatever is swapped meanwhile; names may hold
// any bytes; however deep the tree is, only a few descriptors are open.

// Called with the folder that holds an entry and the entry's name in it; false when it could not do its work.
using EntryVisitor = std::function<bool(int folder, const char *name)>;

// Where a walk ends early.
struct WalkLimits
{
    bool oneFileSystem = false;   // folders of other file systems are passed over
    std::function<bool()> goesOn; // asked before each entry, where there is one; false ends the walk, which then fails
};

// Visits every entry below the folder name in the folder parent: what is not a folder with onFile, each folder, and at
// the very end the named one itself, with onFolderEnd once all that is in it has been visited. A folder that cannot be
// read is left to onClosed, where there is one. Each may delete its entry. Goes on after a failure; false when a
// visitor failed or something could not be read.
bool walkTree(int parent, const char *name, const EntryVisitor &onFile, const EntryVisitor &onFolderEnd,
              const EntryVisitor &onClosed = {}, const WalkLimits &limits = {});

// Deletes what lies so deep below the folder name of the folder parent that the path to it, which begins with that
// name, has more than so many levels or bytes; the rest stays. False when any of that is left.
bool removeDeep(int parent, const char *name, std::size_t levels, std::size_t bytes);

// Deletes the entry name of the folder parent, with all below it when it is a folder. False when any of it is left, or
// when there was none.
bool removeTree(int parent, const char *name);

} // namespace corv

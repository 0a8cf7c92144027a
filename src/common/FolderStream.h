#pragma once

#include <dirent.h>

#include <memory>

namespace corv {

struct CloseFolderStream
{
    void operator()(DIR *stream) const
    {
        ::closedir(stream);
    }
};

// Owns what opendir and its kin open, none where they fail.
using FolderStream = std::unique_ptr<DIR, CloseFolderStream>;

} // namespace corv

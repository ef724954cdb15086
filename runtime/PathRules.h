// Path rules with fixed meanings: an absolute path starts with "/" or "~";
// standardising removes ".", ".." and a trailing "/" without touching the disk;
// resolving follows symbolic links for the part of the path that exists.
#pragma once

#include <string>

namespace hl {

bool isAbsolutePath(const std::string& path);
// Removes "." and empty components, folds ".." into its parent and drops a
// trailing "/"; a relative path stays relative. Never touches the disk.
std::string standardizedPath(const std::string& path);
// Follows symbolic links along the longest existing prefix of an absolute path;
// the rest is appended as it stands.
std::string resolvingSymlinksInPath(const std::string& path);

}  // namespace hl

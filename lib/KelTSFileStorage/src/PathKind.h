// What a path names, as one stat call tells. The tree is looked up by names
// and kinds only; a lookup that the system refuses (an I/O error, a
// permission) must not pass silently for an absent file, so it is logged at
// level 2 with the path, and the kind is Unknown: no caller may take it for
// an absent file.
#pragma once

#include <QString>

namespace Kel::detail {

enum class PathKind { Missing, File, Directory, Other, Unknown };

PathKind pathKind(const QString& path);

inline bool isFilePath(const QString& path)
{
    return pathKind(path) == PathKind::File;
}

inline bool isDirectoryPath(const QString& path)
{
    return pathKind(path) == PathKind::Directory;
}

} // namespace Kel::detail

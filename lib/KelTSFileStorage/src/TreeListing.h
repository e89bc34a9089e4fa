// The names of one level of the date tree, as lookups and deletes see them.
#pragma once

#include <QStringList>

#include <vector>

namespace Kel::detail {

struct TreeEntry {
    QString name;
    bool isDirectory;  // else a file; a link counts as what it points to
};

// The entries of a level in name order (reversed when backward): names of 2
// or 4 characters that are files or directories; everything else (side
// files, temporary files) and hidden entries stay out. A listing that the
// system refuses or breaks off is logged and reads as the names found so
// far; complete, when given, tells whether it was whole.
std::vector<TreeEntry> listTreeEntries(const QString& dirPath, bool backward, bool* complete = nullptr);
QStringList listTreeNames(const QString& dirPath, bool backward, bool* complete = nullptr);

} // namespace Kel::detail

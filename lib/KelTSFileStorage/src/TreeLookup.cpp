// Lookup of files across the date tree: the file of a timestamp, the first
// and last file, and the file before or after a given one. Only names are
// looked at; every call reads the file system afresh.

#include "TSDirControl.h"

#include "Calendar.h"
#include "Logging.h"
#include "PathKind.h"
#include "TreeListing.h"
#include "StorageNames.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kel {

namespace {

// A file lies at most this many levels below the base directory; a deeper
// descent can only be a link that loops, and finds nothing.
constexpr int kMaxLevels = 5;

// A regular file or a directory, a link counting as what it points to:
// what QDir lists with Dirs | Files. The entry's type in the listing
// decides; only a link, or a file system that gives no type, is asked.
enum class EntryKind { File, Directory, Other };

EntryKind kindOf(int dirFd, const char* name, unsigned char type)
{
    if (type == DT_REG)
        return EntryKind::File;
    if (type == DT_DIR)
        return EntryKind::Directory;
    struct stat st;
    if ((type != DT_LNK && type != DT_UNKNOWN) || ::fstatat(dirFd, name, &st, 0) != 0)
        return EntryKind::Other;
    return S_ISREG(st.st_mode) ? EntryKind::File : S_ISDIR(st.st_mode) ? EntryKind::Directory : EntryKind::Other;
}

// getdents64's records, read into a buffer that a level of the tree fills
// at once: at most a few dozen names.
struct DirentRecord {
    ino64_t inode;
    off64_t next;
    unsigned short length;
    unsigned char type;
    char name[1];
};

// The kind of a tree entry as its file info tells it: the info keeps what it
// saw, so that the lookup's caller finds the same kind however the tree
// changes meanwhile. An entry that the system would not look up is asked
// for once more directly, which logs the refusal.
bool isDirectoryEntry(const QFileInfo& entry)
{
    if (entry.isDir() || entry.isFile())
        return entry.isDir();
    return detail::isDirectoryPath(entry.filePath());
}

bool isFileEntry(const QFileInfo& entry)
{
    if (entry.isDir() || entry.isFile())
        return entry.isFile();
    return detail::isFilePath(entry.filePath());
}

// A listing that the system breaks off reads as the names found so far;
// the log says so.
void logListingFailure(const QString& dirPath, int error)
{
    detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Could not list '%1': %2"), __LINE__)
        .arg(dirPath)
        .arg(QString::fromLocal8Bit(std::strerror(error)))
        .endl();
}

} // namespace

namespace detail {

// The directory is read directly, with getdents64 on a descriptor opened
// for it: a QDir listing builds a file info for every entry and matches a
// pattern against each, and opendir asks for the directory's attributes
// first, none of which a lookup needs.
std::vector<TreeEntry> listTreeEntries(const QString& dirPath, bool backward, bool* complete)
{
    std::vector<TreeEntry> entries;
    if (complete)
        *complete = true;
    const auto broken = [&](int error) {
        logListingFailure(dirPath, error);
        if (complete)
            *complete = false;
    };
    const int fd = ::open(QFile::encodeName(dirPath).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            broken(errno);
        return entries;
    }
    alignas(DirentRecord) char buffer[16384];
    for (;;) {
        const ssize_t n = ::getdents64(fd, buffer, sizeof buffer);
        if (n < 0)
            broken(errno);
        if (n <= 0)
            break;
        for (ssize_t at = 0; at < n;) {
            const auto* record = reinterpret_cast<const DirentRecord*>(buffer + at);
            at += record->length;
            if (record->name[0] == '.')
                continue;
            const QString name = QFile::decodeName(record->name);
            if (!names::isTreeName(name))
                continue;
            const EntryKind kind = kindOf(fd, record->name, record->type);
            if (kind != EntryKind::Other)
                entries.push_back({name, kind == EntryKind::Directory});
        }
    }
    ::close(fd);
    const auto order = [backward](const TreeEntry& a, const TreeEntry& b) {
        return backward ? b.name < a.name : a.name < b.name;
    };
    std::sort(entries.begin(), entries.end(), order);
    return entries;
}

QStringList listTreeNames(const QString& dirPath, bool backward, bool* complete)
{
    QStringList names;
    for (TreeEntry& entry : listTreeEntries(dirPath, backward, complete))
        names.append(std::move(entry.name));
    return names;
}

} // namespace detail

TSFileInfo TSDirControl::findFile(long long timestampMs)
{
    if (!detail::isPlaceable(timestampMs))
        return TSFileInfo();
    const Poco::DateTime date = detail::dateTimeOfMs(timestampMs);
    QString relDir;
    for (int depth = TSFileInfo::DEPTH_YEAR; depth <= TSFileInfo::DEPTH_MINUTE; ++depth) {
        const QString name = getFileNameForDepth(date, TSFileInfo::DirDepth(depth));
        const QFileInfo candidate(baseDir + relDir + name);
        if (!isDirectoryEntry(candidate))
            return TSFileInfo(candidate, relDir);
        relDir += name + u'/';
    }
    // The minute entry is itself a directory: the tree never goes that deep.
    return TSFileInfo(QFileInfo(baseDir + getFileNameForDepth(date, TSFileInfo::DEPTH_YEAR)),
                      QString());
}

TSFileInfo TSDirControl::findFirstLastFile(bool first)
{
    QString dirPath = QDir(baseDir).path();
    QString relDir;
    for (int level = 0; level < kMaxLevels; ++level) {
        bool complete = true;
        const std::vector<detail::TreeEntry> entries = detail::listTreeEntries(dirPath, !first, &complete);
        // An empty directory on the way ends the search, even if other
        // branches hold files. A listing broken off finds nothing: the
        // first or last of the names it got need not be the first or last.
        if (entries.empty() || !complete)
            return TSFileInfo();
        const detail::TreeEntry& next = entries.front();
        const QString path = dirPath + u'/' + next.name;
        // A directory is listed next as it is; a file is asked once more,
        // and the info that answered goes to the caller.
        if (!next.isDirectory) {
            const QFileInfo entry(path);
            if (isFileEntry(entry))
                return TSFileInfo(entry, relDir);
        }
        relDir += next.name + u'/';
        dirPath = path;
    }
    return TSFileInfo();
}

TSFileInfo TSDirControl::findFirstFile()
{
    return findFirstLastFile(true);
}

TSFileInfo TSDirControl::findLastFile()
{
    return findFirstLastFile(false);
}

TSFileInfo TSDirControl::findPrevNextFile(TSFileInfo file, bool prev)
{
    // An info that names nothing has no place in the tree (and its empty
    // path would list the working directory).
    while (!file.filePath().isEmpty()) {
        QDir dir(file.path());
        const QString relDir = file.getSubDir();
        bool complete = true;
        const std::vector<detail::TreeEntry> entries = detail::listTreeEntries(dir.path(), prev, &complete);
        // A listing broken off ends the walk: the next name it got need not
        // be the next one there is.
        if (!complete)
            return TSFileInfo();
        const QString name = file.fileName();
        const auto comesAfter = [&](const detail::TreeEntry& e) {
            return prev ? e.name < name : name < e.name;
        };
        const auto candidate = std::find_if(entries.begin(), entries.end(), comesAfter);
        if (candidate != entries.end()) {
            const QFileInfo entry(dir.path() + u'/' + candidate->name);
            if (!candidate->isDirectory)
                return TSFileInfo(entry, relDir);
            // Descend to the earliest file of the next period (or the latest
            // of the previous one); an empty directory on the way means none.
            QString entryRelDir = relDir + candidate->name + u'/';
            QString entryPath = entry.filePath();
            for (int level = file.getDirDepth() + 1; level < kMaxLevels; ++level) {
                const std::vector<detail::TreeEntry> subEntries =
                    detail::listTreeEntries(entryPath, prev, &complete);
                if (subEntries.empty() || !complete)
                    return TSFileInfo();
                const detail::TreeEntry& first = subEntries.front();
                entryPath += u'/' + first.name;
                if (!first.isDirectory) {
                    const QFileInfo sub(entryPath);
                    if (isFileEntry(sub))
                        return TSFileInfo(sub, entryRelDir);
                }
                entryRelDir += first.name + u'/';
            }
            return TSFileInfo();
        }

        // Nothing more in this directory: continue among the siblings of the
        // directory that holds the file. Its name comes from the path, not
        // from the file's period: a name that is no date has period 0, and
        // the walk would start over from 1970 and go round in a circle.
        QStringList parts = relDir.split(u'/', Qt::SkipEmptyParts);
        if (parts.isEmpty())
            return TSFileInfo();
        const QString dirName = parts.takeLast();
        const QString parentRelDir = parts.isEmpty() ? QString() : parts.join(u'/') + u'/';
        dir.cdUp();
        file = TSFileInfo(QFileInfo(dir.path() + u'/' + dirName), parentRelDir);
    }
    return TSFileInfo();
}

TSFileInfo TSDirControl::findPrevFile(TSFileInfo file)
{
    return findPrevNextFile(file, true);
}

TSFileInfo TSDirControl::findNextFile(TSFileInfo file)
{
    return findPrevNextFile(file, false);
}

} // namespace Kel

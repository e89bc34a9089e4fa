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
#include <sys/stat.h>

namespace Kel {

namespace {

// A file lies at most this many levels below the base directory; a deeper
// descent can only be a link that loops, and finds nothing.
constexpr int kMaxLevels = 5;

// A regular file or a directory, a link counting as what it points to:
// what QDir lists with Dirs | Files.
bool isFileOrDir(int dirFd, const dirent* entry)
{
    if (entry->d_type == DT_REG || entry->d_type == DT_DIR)
        return true;
    if (entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN)
        return false;
    struct stat st;
    return ::fstatat(dirFd, entry->d_name, &st, 0) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode));
}

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

// The directory is read directly: a QDir listing builds a file info for
// every entry, and its name filters match a pattern against each, at several
// times the cost.
QStringList listTreeNames(const QString& dirPath, bool backward, bool* complete)
{
    QStringList names;
    if (complete)
        *complete = true;
    DIR* dir = ::opendir(QFile::encodeName(dirPath).constData());
    if (!dir) {
        if (errno != ENOENT && errno != ENOTDIR) {
            logListingFailure(dirPath, errno);
            if (complete)
                *complete = false;
        }
        return names;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (!entry) {
            if (errno != 0) {
                logListingFailure(dirPath, errno);
                if (complete)
                    *complete = false;
            }
            break;
        }
        if (entry->d_name[0] == '.')
            continue;
        const QString name = QFile::decodeName(entry->d_name);
        if (detail::names::isTreeName(name) && isFileOrDir(::dirfd(dir), entry))
            names.append(name);
    }
    ::closedir(dir);
    if (backward)
        std::sort(names.begin(), names.end(), std::greater<QString>());
    else
        std::sort(names.begin(), names.end());
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
    QDir dir(baseDir);
    if (!isDirectoryEntry(QFileInfo(baseDir)))
        return TSFileInfo();
    QString relDir;
    for (int level = 0; level < kMaxLevels; ++level) {
        bool complete = true;
        const QStringList names = detail::listTreeNames(dir.path(), !first, &complete);
        // An empty directory on the way ends the search, even if other
        // branches hold files. A listing broken off finds nothing: the
        // first or last of the names it got need not be the first or last.
        if (names.isEmpty() || !complete)
            return TSFileInfo();
        const QFileInfo entry(dir.path() + u'/' + names.first());
        if (isFileEntry(entry))
            return TSFileInfo(entry, relDir);
        relDir += names.first() + u'/';
        dir.setPath(entry.filePath());
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
        const QStringList names = detail::listTreeNames(dir.path(), prev, &complete);
        // A listing broken off ends the walk: the next name it got need not
        // be the next one there is.
        if (!complete)
            return TSFileInfo();
        const QString name = file.fileName();

        qsizetype candidate = names.indexOf(name);
        if (candidate >= 0) {
            ++candidate;
        } else {
            candidate = names.size();
            for (qsizetype i = 0; i < names.size(); ++i) {
                const int order = names[i].compare(name);
                if (prev ? order <= 0 : order >= 0) {
                    candidate = order == 0 ? i + 1 : i;
                    break;
                }
            }
        }

        if (candidate < names.size()) {
            QString entryName = names[candidate];
            QString entryPath = dir.path() + u'/' + entryName;
            const QFileInfo entry(entryPath);
            if (!isDirectoryEntry(entry))
                return TSFileInfo(entry, relDir);
            // Descend to the earliest file of the next period (or the latest
            // of the previous one); an empty directory on the way means none.
            QString entryRelDir = relDir;
            for (int level = file.getDirDepth() + 1; level < kMaxLevels; ++level) {
                entryRelDir += entryName + u'/';
                const QDir sub(entryPath);
                const QStringList subNames = detail::listTreeNames(sub.path(), prev, &complete);
                if (subNames.isEmpty() || !complete)
                    return TSFileInfo();
                entryName = subNames.first();
                entryPath = sub.path() + u'/' + entryName;
                const QFileInfo entry(entryPath);
                if (isFileEntry(entry))
                    return TSFileInfo(entry, entryRelDir);
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

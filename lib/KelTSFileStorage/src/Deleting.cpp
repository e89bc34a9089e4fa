// Deleting the records of a closed time range: whole files go with their
// side files, partly covered files are written anew without the deleted
// records, and directories left empty are removed, walking upwards.
//
// A directory without a file of the tree ends every walk over the tree, so
// that the records after it could no longer be found. A directory that a
// delete empties is therefore taken out of the tree in one rename before it
// is removed, and never stands empty, whenever the process stops.

#include "TSFileStorage.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "MarkerStorage.h"
#include "RecordFile.h"
#include "FileReplace.h"
#include "StoredRange.h"
#include "TreeListing.h"
#include "StorageNames.h"

#include <QDir>

#include <cstdio>
#include <set>

namespace Kel {

using Record = Interpolate::DataRecord;

namespace {

bool isEmptyDir(const QDir& dir)
{
    return dir.exists() && dir.isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
}

// Removes the directory while it is empty, then its parents while they are.
void removeEmptyUpwards(QDir dir)
{
    while (isEmptyDir(dir)) {
        const QString name = dir.dirName();
        if (!dir.cdUp() || !dir.rmdir(name))
            return;
        detail::diskStepDone();
    }
}

// Where a directory goes for its removal: a name no lookup sees.
QString asidePath(const QString& dir)
{
    return detail::names::withSuffix(dir, detail::names::kDeletedSuffix);
}

// Removes a directory after taking it out of the tree in one rename.
void removeDirectoryAtOnce(const QString& dir)
{
    const QString aside = asidePath(dir);
    QDir(aside).removeRecursively();  // left by a run that was stopped
    if (std::rename(QFile::encodeName(dir).constData(), QFile::encodeName(aside).constData()) != 0) {
        QDir(dir).removeRecursively();
        detail::diskStepDone();
        return;
    }
    detail::diskStepDone();
    QDir(aside).removeRecursively();
    detail::diskStepDone();
}


// The directories that hold no file of the tree once the doomed files are
// gone, up to (not including) the series' base directory; only the highest
// of each branch is listed.
QStringList directoriesEmptiedBy(const QStringList& doomed, const std::set<QString>& dirs, const QString& base)
{
    std::set<QString> gone;
    for (const QString& path : doomed)
        gone.insert(QFileInfo(path).absoluteFilePath());
    std::set<QString> emptied;
    std::set<QString> candidates = dirs;
    while (!candidates.empty()) {
        // The last in order first: a directory sorts before everything in
        // it, so it is looked at after all of its emptied subdirectories.
        const QString dir = *candidates.rbegin();
        candidates.erase(dir);
        if (dir.size() + 1 <= base.size() || emptied.count(dir))
            continue;
        // A directory whose listing fails is not known to be empty.
        bool empty = true;
        for (const QString& name : detail::listTreeNames(dir, false, &empty))
            empty = empty && gone.count(dir + u'/' + name) > 0;
        if (!empty)
            continue;
        emptied.insert(dir);
        gone.insert(dir);
        candidates.insert(QFileInfo(dir).absolutePath());
    }
    QStringList highest;
    for (const QString& dir : emptied)
        if (!emptied.count(QFileInfo(dir).absolutePath()))
            highest.append(dir);
    return highest;
}

bool insideAny(const QString& path, const QStringList& dirs)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    for (const QString& dir : dirs)
        if (absolute.startsWith(dir + u'/'))
            return true;
    return false;
}

// A file that stays keeps its side file, which holds its values.
void removeWithSideFile(const QString& path)
{
    if (!QFile::remove(path)) {
        detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Could not remove '%1'"), __LINE__)
            .arg(path)
            .endl();
        return;
    }
    detail::diskStepDone();
    const QString var = detail::names::sideFile(path);
    if (!QFileInfo::exists(var))
        return;
    if (!QFile::remove(var))
        detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Could not remove '%1'"), __LINE__)
            .arg(var)
            .endl();
    detail::diskStepDone();
}

void logReadFailure(const QString& path)
{
    detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Could not read '%1' (deleteDataRecords)"), __LINE__)
        .arg(path)
        .endl();
}

enum class Kept { None, Some, Unknown };

// Writes the records of a partly covered file that lie outside [start, end]
// anew: None when none of them is kept (the whole file goes). A file whose
// records cannot all be read stays as it is (Unknown).
Kept keepOutside(detail::RecordFile& file, long long start, long long end)
{
    const qint64 count = file.count();
    const qint64 first = file.lowerBound(start);
    const qint64 last = file.upperBound(end);
    if (file.failed()) {
        logReadFailure(file.path());
        return Kept::Unknown;  // the bounds were found by reads that failed
    }
    if (first == 0 && last == count)
        return Kept::None;
    // Nothing in the range (a range from the first record that ends before
    // 1970 starts after its end): the bytes stay as they are.
    if (first >= last)
        return Kept::Some;

    const detail::RecordLayout& layout = file.layout();
    if (!layout.variable) {
        QByteArray kept((count - (last - first)) * layout.stride, Qt::Uninitialized);
        if (!file.readRaw(0, first, kept.data()) ||
            !file.readRaw(last, count - last, kept.data() + first * layout.stride)) {
            logReadFailure(file.path());
            return Kept::Unknown;
        }
        if (!detail::replaceFile(file.path(), kept.constData(), kept.size()))
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for write (deleteDataRecords)"), __LINE__)
                .arg(file.path())
                .endl();
        return Kept::Some;
    }
    // Variable values: the kept records get a side file of their own values
    // only, as a reorganisation would leave it.
    std::vector<Record> records(size_t(count - (last - first)));
    if (file.readRecords(0, first, records.data()) != first ||
        file.readRecords(last, count - last, records.data() + first) != count - last || file.failed()) {
        logReadFailure(file.path());
        return Kept::Unknown;
    }
    detail::VarBuffer var;
    const detail::RecordEncoder encoder(layout, file.base(), &var);
    QByteArray data;
    for (const Record& r : records)
        encoder.append(data, r);
    if (!detail::replaceFileAndSideFile(file.path(), data, var.bytes()))
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for write (deleteDataRecords)"), __LINE__)
            .arg(file.path())
            .endl();
    return Kept::Some;
}

} // namespace

bool TSFileStorage::deleteDataRecords(long long start, long long end, QString marker)
try
{
    detail::MarkerStorage storage(*this, marker);
    if (!storage)
        return true;
    bool coversFirst = false;
    bool coversLast = false;
    if (!detail::adjustToStoredRecords(*storage.get(), start, end, coversFirst, coversLast))
        return true;

    if (coversFirst && coversLast) {
        // The whole series goes, and every directory above it that is left
        // empty.
        QDir dir(storage->baseDir);
        removeDirectoryAtOnce(dir.absolutePath());
        if (dir.cdUp())
            removeEmptyUpwards(dir);
        return true;
    }

    TSFileInfo info = storage->findFile(start);
    if (!info.found())
        info = storage->findNextFile(info);
    // A range from the first record starts at 1970, as it always has: the
    // records of a series before 1970 are kept by such a delete (unless it
    // covers the last record too, and the whole series goes).
    if (coversFirst)
        start = 0;

    QStringList doomed;
    std::set<QString> dirsToTidy;
    auto removeWhole = [&](const TSFileInfo& f) {
        doomed.append(f.filePath());
        dirsToTidy.insert(f.absolutePath());
    };
    for (; info.found(); info = storage->findNextFile(info)) {
        const long long base = info.getBaseTsMs();
        if (coversLast && base >= start) {
            removeWhole(info);
            continue;
        }
        detail::RecordFile file(storage->valueType, info);
        if (!file.openToChange(QIODevice::ReadOnly)) {
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for read (deleteDataRecords)"), __LINE__)
                .arg(info.filePath())
                .endl();
            continue;
        }
        const long long lastTs = file.count() > 0 ? file.timestampAt(file.count() - 1) : base;
        if (file.failed()) {
            logReadFailure(info.filePath());
            break;  // where the range ends in this file is not known
        }
        if (lastTs <= end && base >= start) {
            file.close();
            removeWhole(info);
            continue;
        }
        const Kept kept = keepOutside(file, start, end);
        file.close();
        if (kept == Kept::None)
            removeWhole(info);
        // Every file that the delete visits and keeps is reorganised, also
        // when none of its records lay in the range: its side file loses
        // the values no record refers to, with the progress line that says so.
        if (kept == Kept::Some) {
            QFile rewritten(info.filePath());
            storage->reorgVarFile(&rewritten, info);
        }
        if (lastTs > end)
            break;
    }

    const QStringList emptied =
        directoriesEmptiedBy(doomed, dirsToTidy, QDir(storage->baseDir).absolutePath() + u'/');
    for (const QString& dir : emptied)
        removeDirectoryAtOnce(dir);
    for (const QString& path : doomed)
        if (!insideAny(path, emptied))
            removeWithSideFile(path);
    for (const QString& path : dirsToTidy)
        removeEmptyUpwards(QDir(path));
    for (const QString& dir : emptied)
        removeEmptyUpwards(QDir(QFileInfo(dir).absolutePath()));
    return true;
} catch (...) {
    detail::logCaughtException("deleteDataRecords");
    return true;
}

bool TSFileStorage::deleteDataRecords(long long start, long long end)
{
    deleteDataRecords(start, end, QString());
    for (const detail::names::Companion& companion : detail::names::kCompanions)
        deleteDataRecords(start, end, QLatin1String(companion.marker));
    return true;
}

} // namespace Kel

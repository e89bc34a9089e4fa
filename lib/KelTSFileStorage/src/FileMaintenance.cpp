// File maintenance: splitting a file that outgrew the size limit into files
// of the next finer period, and rebuilding a side file without the values
// that no record refers to any more. Both write the new files completely
// before the old ones are given up, so that an interrupted run leaves the
// old records in place.

#include "TSFileStorage.h"

#include "Calendar.h"
#include "DiskSteps.h"
#include "Logging.h"
#include "Disk.h"
#include "RecordFile.h"
#include "TreeNaming.h"
#include "FileReplace.h"
#include "StorageNames.h"

#include <QDir>

#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace Kel {

namespace {

constexpr qint64 kBlockRecords = 65536;
constexpr qsizetype kPendingBytes = 1 << 20;

bool splitIsDue(const QString& path, long long limit)
{
    if (QFileInfo(path).size() > limit)
        return true;
    const QFileInfo var(detail::names::sideFile(path));
    // The side file may grow to ten times the limit before it forces a split.
    return var.exists() && limit < var.size() / 10;
}

// Puts the directory of split files in place of the file and removes the
// file: in one step where the file system can swap the two, else by moving
// the file aside first.
bool replaceFileByDirectory(const QString& dirPath, const QString& filePath)
{
    const QByteArray dir = QFile::encodeName(dirPath);
    const QByteArray file = QFile::encodeName(filePath);
    if (::renameat2(AT_FDCWD, dir.constData(), AT_FDCWD, file.constData(), RENAME_EXCHANGE) == 0) {
        detail::diskStepDone();
        QFile::remove(dirPath);  // now the old file
        detail::diskStepDone();
        return true;
    }
    const QByteArray aside = file + detail::names::kSplitAsideSuffix;
    if (std::rename(file.constData(), aside.constData()) != 0)
        return false;
    detail::diskStepDone();
    if (std::rename(dir.constData(), file.constData()) != 0) {
        std::rename(aside.constData(), file.constData());
        return false;
    }
    detail::diskStepDone();
    std::remove(aside.constData());
    detail::diskStepDone();
    return true;
}

// A split stopped right after the swap leaves the old file beside the new
// directory, under the name of the work directory. No lookup sees it, and
// every record in it is in the directory; it goes at the next write there.
void removeFileLeftBySplit(const TSFileInfo& info)
{
    if (info.getDirDepth() == TSFileInfo::DEPTH_YEAR)
        return;
    const QString left = detail::names::withSuffix(info.absolutePath(), detail::names::kSplitSuffix);
    if (QFileInfo(left).isFile())
        QFile::remove(left);
}

} // namespace

// Writes the records of one file into the files of the next finer period,
// one target open at a time. Fixed-length values are copied as they are;
// only the offsets change width.
class FileSplitter {
public:
    FileSplitter(detail::RecordFile& source, const QString& workDir)
        : source(source),
          finalDir(source.path()),
          workDir(workDir),
          subDir(source.info().getSubDir() + source.info().fileName() + u'/'),
          // The next finer depth: that of a file inside the new directory.
          targetDepth(TSFileInfo::DirDepth(
              TSFileInfo(QFileInfo(finalDir + QStringLiteral("/xx")), subDir).getDirDepth())),
          layout(source.layout().type, targetDepth)
    {
    }

    bool add(long long ts, const uchar* field)
    {
        if ((!file || ts < targetBase || ts >= targetEnd) && !switchTo(ts))
            return false;
        if (used + layout.stride > pending.size())
            pending.resize(std::max<qsizetype>(2 * pending.size(), kPendingBytes));
        auto* p = reinterpret_cast<uchar*>(pending.data() + used);
        used += layout.stride;
        detail::encodeOffset(p, quint64(ts - targetBase), layout.offsetWidth);
        if (layout.variable) {
            detail::encodeVarPosition(p + layout.offsetWidth, var->append(source.valueOf(field)));
            return true;
        }
        std::memcpy(p + layout.offsetWidth, field, size_t(layout.stride - layout.offsetWidth));
        // Fixed-length records need no side file to go first: they go out a
        // block at a time, so that a split takes no more memory than that.
        return used < kPendingBytes || writePending();
    }

    bool finish() { return flush(); }

private:
    bool switchTo(long long ts)
    {
        const QString name = detail::levelName(detail::dateTimeOfMs(ts), targetDepth);
        if (file && name == current)
            return true;  // a record outside the period of its name; it stays with its name
        if (!flush())
            return false;
        current = name;
        const TSFileInfo target(QFileInfo(finalDir + u'/' + name), subDir);
        targetBase = target.getBaseTsMs();
        targetEnd = target.getPeriodEndTsMs();
        file = std::make_unique<QFile>(workDir + u'/' + name);
        if (!detail::openRetrying(*file, QIODevice::WriteOnly | QIODevice::Append)) {
            // Named where the file will stand: the work directory is a
            // detail of the swap that the operator never sees.
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for write (checkMaxFileSize)"),
                               __LINE__)
                .arg(finalDir + u'/' + name)
                .endl();
            file.reset();
            return false;
        }
        var.reset(layout.variable
                      ? new detail::VarFileWriter(detail::names::sideFile(file->fileName()))
                      : nullptr);
        return true;
    }

    bool writePending()
    {
        const bool ok = file->write(pending.constData(), used) == used;
        used = 0;
        return ok;
    }

    bool flush()
    {
        if (!file)
            return true;
        // Stored values must not be given up for position 0, as new ones
        // may be when their side file will not open.
        bool ok = !var || (var->flush() && !var->lostValues());
        // QFile keeps small writes in its buffer: its flush tells whether
        // they reached the file.
        ok = writePending() && file->flush() && ok;
        file->close();
        detail::diskStepDone();
        file.reset();
        return ok;
    }

    detail::RecordFile& source;
    QString finalDir;
    QString workDir;
    QString subDir;
    TSFileInfo::DirDepth targetDepth;
    detail::RecordLayout layout;
    QString current;
    long long targetBase = 0;
    long long targetEnd = 0;
    std::unique_ptr<QFile> file;
    std::unique_ptr<detail::VarFileWriter> var;
    QByteArray pending;     // records for the current target, the first `used` bytes
    qsizetype used = 0;
};

bool TSFileStorage::checkMaxFileSize(QFile* file, TSFileInfo info)
try
{
    const QString path = file->fileName();
    removeFileLeftBySplit(info);
    if (!splitIsDue(path, maxFileSize) || info.getDirDepth() >= TSFileInfo::DEPTH_MINUTE)
        return false;

    detail::RecordFile source(valueType, info);
    if (!source.openToChange(QIODevice::ReadOnly)) {
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for read (checkMaxFileSize)"), __LINE__)
            .arg(path)
            .endl();
        return false;
    }

    // A split that was stopped leaves its work directory behind, or, when it
    // stopped right after the swap, the old file under that name.
    const QString workDir = detail::names::withSuffix(path, detail::names::kSplitSuffix);
    if (QFileInfo(workDir).isFile())
        QFile::remove(workDir);
    QDir(workDir).removeRecursively();
    QDir().mkpath(workDir);
    FileSplitter splitter(source, workDir);
    const int stride = source.layout().stride;
    const int offsetWidth = source.layout().offsetWidth;
    QByteArray block(qsizetype(kBlockRecords) * stride, Qt::Uninitialized);
    bool ok = true;
    for (qint64 from = 0; ok && from < source.count(); from += kBlockRecords) {
        const qint64 n = std::min(kBlockRecords, source.count() - from);
        ok = source.readRaw(from, n, block.data());
        const auto* p = reinterpret_cast<const uchar*>(block.constData());
        for (qint64 i = 0; ok && i < n; ++i, p += stride)
            ok = splitter.add(detail::decodeTimestamp(p, offsetWidth, source.base()), p + offsetWidth);
    }
    ok = splitter.finish() && ok && !source.failed();
    source.close();

    // Nothing is given up unless every record reached its new file.
    if (!ok || !replaceFileByDirectory(workDir, path)) {
        QDir(workDir).removeRecursively();
        return false;
    }
    QFile::remove(detail::names::sideFile(path));
    detail::diskStepDone();
    return true;
} catch (...) {
    detail::logCaughtException("checkMaxFileSize");
    return false;
}

void TSFileStorage::reorgVarFile(QFile* file, TSFileInfo info)
try
{
    const QString path = file->fileName();
    detail::storageLog(detail::LOG_PROGRESS, QStringLiteral("Reorganize .var file '%1'"), __LINE__)
        .arg(detail::names::sideFile(path))
        .endl();

    detail::RecordFile source(valueType, info);
    if (!source.openToChange(QIODevice::ReadOnly)) {
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for read (reorgVarFile)"), __LINE__)
            .arg(path)
            .endl();
        return;
    }
    // Records of fixed length written again would be the same bytes: only a
    // side file left beside them goes, as the rewrite would remove it.
    const QString sideFile = detail::names::sideFile(path);
    if (!source.layout().variable && source.tailBytes() == 0) {
        source.close();
        if (QFileInfo::exists(sideFile))
            QFile::remove(sideFile);
        return;
    }
    // Records that cannot be read are not given up for a smaller side file.
    std::vector<Interpolate::DataRecord> records(size_t(source.count()));
    if (source.readRecords(0, source.count(), records.data()) != source.count() || source.failed()) {
        detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Could not read '%1' (reorgVarFile)"), __LINE__)
            .arg(path)
            .endl();
        return;
    }
    source.close();

    const bool variable = source.layout().variable;
    detail::VarBuffer var;
    const detail::RecordEncoder encoder(source.layout(), source.base(), variable ? &var : nullptr);
    QByteArray data;
    data.reserve(qsizetype(records.size()) * source.layout().stride);
    for (const Interpolate::DataRecord& rec : records)
        encoder.append(data, rec);
    const bool replaced = variable ? detail::replaceFileAndSideFile(path, data, var.bytes())
                                   : detail::replaceFile(path, data.constData(), data.size());
    if (replaced && !variable && QFileInfo::exists(sideFile))
        QFile::remove(sideFile);
    if (!replaced)
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for write (reorgVarFile)"), __LINE__)
            .arg(path)
            .endl();
} catch (...) {
    detail::logCaughtException("reorgVarFile");
}

} // namespace Kel

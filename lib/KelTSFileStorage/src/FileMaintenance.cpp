// File maintenance: splitting a file that outgrew the size limit into files
// of the next finer period, and rebuilding a side file without the values
// that no record refers to any more. Both write the new files completely
// before the old ones are given up, so that an interrupted run leaves the
// old records in place.

#include "TSFileStorage.h"

#include "Calendar.h"
#include "Logging.h"
#include "RecordFile.h"

#include <QDir>

#include <cstdio>
#include <fcntl.h>

namespace Kel {

namespace {

constexpr qint64 kBlockRecords = 65536;

bool splitIsDue(const QString& path, long long limit)
{
    if (QFileInfo(path).size() > limit)
        return true;
    const QFileInfo var(path + QStringLiteral(".var"));
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
        QFile::remove(dirPath);  // now the old file
        return true;
    }
    const QByteArray aside = file + ".old";
    if (std::rename(file.constData(), aside.constData()) != 0)
        return false;
    if (std::rename(dir.constData(), file.constData()) != 0) {
        std::rename(aside.constData(), file.constData());
        return false;
    }
    std::remove(aside.constData());
    return true;
}

} // namespace

// Writes the records of one file into the files of the next finer period,
// one target open at a time.
class FileSplitter {
public:
    FileSplitter(TSFileStorage& storage, const TSFileInfo& source, const QString& workDir)
        : storage(storage),
          finalDir(source.filePath()),
          workDir(workDir),
          subDir(source.getSubDir() + source.fileName() + u'/'),
          depth(TSFileInfo(QFileInfo(finalDir + QStringLiteral("/xx")), subDir).getDirDepth())
    {
    }

    bool add(const Interpolate::DataRecord& rec)
    {
        const QString name =
            storage.getFileNameForDepth(detail::dateTimeOfMs(rec.timestamp), TSFileInfo::DirDepth(depth));
        if (name != current && !switchTo(name))
            return false;
        encoder->append(pending, rec);
        return true;
    }

    bool finish() { return flush(); }

private:
    bool switchTo(const QString& name)
    {
        if (!flush())
            return false;
        current = name;
        const TSFileInfo target(QFileInfo(finalDir + u'/' + name), subDir);
        const detail::RecordLayout layout(storage.valueType, depth);
        file = std::make_unique<QFile>(workDir + u'/' + name);
        if (!storage.openFile(*file, QIODevice::WriteOnly | QIODevice::Append)) {
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for write (checkMaxFileSize)"),
                               __LINE__)
                .arg(file->fileName())
                .endl();
            file.reset();
            return false;
        }
        var.reset(layout.variable ? new detail::VarFileWriter(storage, file->fileName() + QStringLiteral(".var"))
                                  : nullptr);
        encoder = std::make_unique<detail::RecordEncoder>(layout, target.getBaseTsMs(), var.get());
        return true;
    }

    bool flush()
    {
        if (!file)
            return true;
        bool ok = !var || var->flush();
        ok = file->write(pending) == pending.size() && ok;
        file->close();
        pending.clear();
        return ok;
    }

    TSFileStorage& storage;
    QString finalDir;
    QString workDir;
    QString subDir;
    int depth;
    QString current;
    std::unique_ptr<QFile> file;
    std::unique_ptr<detail::VarFileWriter> var;
    std::unique_ptr<detail::RecordEncoder> encoder;
    QByteArray pending;
};

bool TSFileStorage::checkMaxFileSize(QFile* file, TSFileInfo info)
{
    const QString path = file->fileName();
    if (!splitIsDue(path, maxFileSize) || info.getDirDepth() >= TSFileInfo::DEPTH_MINUTE)
        return false;

    detail::RecordFile source(*this, info);
    if (!source.open(QIODevice::ReadOnly)) {
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for read (checkMaxFileSize)"), __LINE__)
            .arg(path)
            .endl();
        return false;
    }

    const QString workDir = path + QStringLiteral(".split");
    QDir(workDir).removeRecursively();
    QDir().mkpath(workDir);
    FileSplitter splitter(*this, info, workDir);
    std::vector<Interpolate::DataRecord> block(size_t(std::min(kBlockRecords, source.count())));
    bool ok = true;
    for (qint64 from = 0; ok && from < source.count(); from += kBlockRecords) {
        const qint64 n = source.readRecords(from, kBlockRecords, block.data());
        for (qint64 i = 0; ok && i < n; ++i)
            ok = splitter.add(block[size_t(i)]);
    }
    ok = splitter.finish() && ok;
    source.close();

    // Nothing is given up unless every record reached its new file.
    if (!ok || !replaceFileByDirectory(workDir, path)) {
        QDir(workDir).removeRecursively();
        return false;
    }
    QFile::remove(path + QStringLiteral(".var"));
    return true;
}

void TSFileStorage::reorgVarFile(QFile* file, TSFileInfo info)
{
    const QString path = file->fileName();
    detail::storageLog(detail::LOG_PROGRESS, QStringLiteral("Reorganize .var file '%1'"), __LINE__)
        .arg(path + QStringLiteral(".var"))
        .endl();

    detail::RecordFile source(*this, info);
    if (!source.open(QIODevice::ReadOnly)) {
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for read (reorgVarFile)"), __LINE__)
            .arg(path)
            .endl();
        return;
    }
    std::vector<Interpolate::DataRecord> records(size_t(source.count()));
    records.resize(size_t(source.readRecords(0, source.count(), records.data())));
    source.close();

    detail::VarBuffer var;
    const detail::RecordEncoder encoder(source.layout(), source.base(), &var);
    QByteArray data;
    data.reserve(qsizetype(records.size()) * source.layout().stride);
    for (const Interpolate::DataRecord& rec : records)
        encoder.append(data, rec);
    if (!detail::replaceFileAndSideFile(path, data, var.bytes()))
        detail::storageLog(detail::LOG_FAILURE,
                           QStringLiteral("Could not open '%1' for write (reorgVarFile)"), __LINE__)
            .arg(path)
            .endl();
}

} // namespace Kel

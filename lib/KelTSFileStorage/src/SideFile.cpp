// Side files: values appended, read at their positions, and the refusals
// told apart from damage.

#include "SideFile.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "PathKind.h"
#include "Disk.h"


#include <sys/stat.h>
#include <unistd.h>

namespace Kel::detail {

QVariant readVariant(QDataStream& stream)
{
    QVariant value;
    try {
        stream >> value;
    } catch (...) {
        // A corrupt length field can ask for more memory than there is.
        stream.setStatus(QDataStream::ReadCorruptData);
        return QVariant();
    }
    return stream.status() == QDataStream::Ok ? value : QVariant();
}

// A value of a type that Qt cannot serialise is written as the stream
// writes it (its type and no data, with Qt's own warning); it reads back as
// no value. The stream then refuses every later write; each value has a
// stream of its own in the format, so the values after it are written.
void writeVariant(QDataStream& stream, const QVariant& value)
{
    const bool wasOk = stream.status() == QDataStream::Ok;
    stream << value;
    if (wasOk && value.isValid() && !value.metaType().hasRegisteredDataStreamOperators())
        stream.resetStatus();
}

VarFileReader::VarFileReader(QString varPath) : path(std::move(varPath))
{
}

VarFileReader::~VarFileReader() = default;

QVariant VarFileReader::valueAt(qint32 position)
{
    if (failed)
        return QVariant();
    if (!file) {
        file = std::make_unique<QFile>(path);
        // A side file that is missing (or is no file) does not turn up by
        // waiting: it fails at once instead of after the retries of a file
        // that another process holds, which would stall every read of it.
        const PathKind kind = pathKind(path);
        if (kind != PathKind::File || !openRetrying(*file, QIODevice::ReadOnly)) {
            // A side file that is missing or is no file stays so; one that
            // the system would not look up or open may be there.
            refused = kind == PathKind::File || kind == PathKind::Unknown;
            storageLog(LOG_FAILURE, QStringLiteral("Could not open '%1' for read (readCurrDataRecord)"),
                       __LINE__)
                .arg(path)
                .endl();
            failed = true;
            return QVariant();
        }
        stream = std::make_unique<QDataStream>(file.get());
        stream->setVersion(QDataStream::Qt_5_13);
        size = currentSize();
    }
    // Values are mostly read in the order they were written: the file is
    // asked for its size again only for a position beyond the last known
    // size, and moved only when it is not already at the position.
    if (position >= size)
        size = currentSize();
    if (refused)
        return unreadable(position, "could not be read");
    if (position < 0 || position >= size)
        return unreadable(position, "lies past the end of the file");
    QVariant value = readAt(position);
    if (stream->status() == QDataStream::Ok)
        return value;
    // The stream does not tell a read that the system refused from damaged
    // data: a byte read directly tells, and a refusal that has passed is
    // followed by one more try.
    char probe;
    if (::pread(file->handle(), &probe, 1, position) != 1) {
        refused = true;
        return unreadable(position, "could not be read");
    }
    value = readAt(position);
    return stream->status() == QDataStream::Ok ? value : unreadable(position, "is corrupt");
}

QVariant VarFileReader::readAt(qint32 position)
{
    stream->resetStatus();
    if (file->pos() != position && !file->seek(position)) {
        stream->setStatus(QDataStream::ReadPastEnd);
        return QVariant();
    }
    return readVariant(*stream);
}

qint64 VarFileReader::currentSize()
{
    struct stat st;
    if (::fstat(file->handle(), &st) == 0)
        return st.st_size;
    refused = true;
    return 0;
}

QVariant VarFileReader::unreadable(qint32 position, const char* why)
{
    // Once per file and read: a damaged file can hold many such values.
    if (!reported)
        storageLog(LOG_FAILURE, QStringLiteral("Value at position %1 of '%2' %3; it reads as no value"), __LINE__)
            .arg(position)
            .arg(path)
            .arg(QString::fromLatin1(why))
            .endl();
    reported = true;
    return QVariant();
}

VarBuffer::VarBuffer(qint64 startSize) : startSize(startSize), stream(&data, QIODevice::WriteOnly)
{
    stream.setVersion(QDataStream::Qt_5_13);
}

qint32 VarBuffer::append(const QVariant& value)
{
    const qint32 position = qint32(startSize + data.size());
    writeVariant(stream, value);
    return position;
}

VarFileWriter::VarFileWriter(QString varPath) : path(std::move(varPath))
{
}

VarFileWriter::~VarFileWriter()
{
    flush();
}

bool VarFileWriter::open()
{
    auto opened = std::make_unique<QFile>(path);
    // A directory or other non-file in the side file's place does not go
    // away by waiting: it fails at once, as for reading. Positions are
    // handed out from the file's end as the system reports it: a size that
    // could not be learnt would point records at the values of others.
    const PathKind kind = pathKind(path);
    const bool openable = kind != PathKind::Directory && kind != PathKind::Other;
    off_t end = -1;
    if (openable && openRetrying(*opened, QIODevice::WriteOnly | QIODevice::Append))
        end = ::lseek(opened->handle(), 0, SEEK_END);
    if (end < 0) {
        storageLog(LOG_FAILURE, QStringLiteral("Could not open '%1' for write (writeDataRecord)"),
                   __LINE__)
            .arg(path)
            .endl();
        failed = true;
        return false;
    }
    buffer = std::make_unique<VarBuffer>(end);
    file = std::move(opened);
    return true;
}

qint32 VarFileWriter::append(const QVariant& value)
{
    if (failed || (!file && !open()))
        return 0;
    return buffer->append(value);
}

bool VarFileWriter::flush()
{
    // A side file that could not be opened was logged, and its records are
    // stored all the same, with position 0.
    if (!file)
        return true;
    const QByteArray& pending = buffer->bytes();
    // QFile buffers what it is given: only its flush tells whether the
    // values reached the file.
    const bool ok = pending.isEmpty() || (file->write(pending) == pending.size() && file->flush());
    file->close();
    diskStepDone();
    file.reset();
    buffer.reset();
    return ok;
}

} // namespace Kel::detail

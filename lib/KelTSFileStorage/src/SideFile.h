// Side files: the values of variable length of one storage file, each a
// QVariant serialised by QDataStream (version 19), only ever appended. A
// record holds its value's byte position. Reading a value that lies past the
// end or is corrupt gives an invalid QVariant and a log line; a side file
// that cannot be opened for append gives the records position 0.
#pragma once

#include "RecordCodec.h"

#include <QByteArray>
#include <QDataStream>
#include <QFile>
#include <QString>
#include <QVariant>

#include <memory>

namespace Kel::detail {

// Reads one serialised value; corrupt or missing data gives an invalid
// QVariant, never an exception.
QVariant readVariant(QDataStream& stream);
void writeVariant(QDataStream& stream, const QVariant& value);

// Values of one side file, read at their positions. The file is opened on
// first use and kept open while one storage file is read.
class VarFileReader {
public:
    explicit VarFileReader(QString varPath);
    ~VarFileReader();
    VarFileReader(const VarFileReader&) = delete;
    VarFileReader& operator=(const VarFileReader&) = delete;

    // The value at a position; a position past the end or a corrupt value
    // gives an invalid QVariant and is logged.
    QVariant valueAt(qint32 position);
    // Whether values could not be read because the system refused the side
    // file (not because it is missing or damaged).
    bool refusedBySystem() const { return refused; }

private:
    QVariant unreadable(qint32 position, const char* why);
    qint64 currentSize();
    QVariant readAt(qint32 position);

    QString path;
    std::unique_ptr<QFile> file;
    std::unique_ptr<QDataStream> stream;
    qint64 size = 0;  // as last asked; a writer may append meanwhile
    bool failed = false;
    bool refused = false;
    bool reported = false;
};

// Serialised values in memory, positioned as if appended to a side file of
// startSize bytes.
class VarBuffer : public VarSink {
public:
    explicit VarBuffer(qint64 startSize = 0);
    qint32 append(const QVariant& value) override;
    const QByteArray& bytes() const { return data; }

private:
    qint64 startSize;
    QByteArray data;
    QDataStream stream;
};

// Values appended to one side file. Positions are handed out at once; the
// serialised values are written by flush(), before the records that refer to
// them. When the side file cannot be opened the records get position 0.
class VarFileWriter : public VarSink {
public:
    explicit VarFileWriter(QString varPath);
    ~VarFileWriter() override;
    VarFileWriter(const VarFileWriter&) = delete;
    VarFileWriter& operator=(const VarFileWriter&) = delete;

    qint32 append(const QVariant& value) override;
    bool flush();
    // Whether values were handed position 0 because the file would not open.
    bool lostValues() const { return failed; }

private:
    bool open();

    QString path;
    std::unique_ptr<QFile> file;
    std::unique_ptr<VarBuffer> buffer;
    bool failed = false;
};

} // namespace Kel::detail

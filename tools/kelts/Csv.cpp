// Splitting and quoting of CSV rows.

#include "Csv.h"

#include "Commands.h"

#include <QFileDevice>

#include <cerrno>

namespace kelts {

namespace {

constexpr qsizetype kFlushBytes = 1 << 16;
// A piece of input read at a time.
constexpr qint64 kReadBytes = 1 << 20;

} // namespace

CsvReader::CsvReader(QString t, int firstLine) : text(std::move(t)), line(firstLine)
{
    if (firstLine == 1 && text.startsWith(QChar(0xFEFF)))   // a byte order mark from a spreadsheet export
        pos = 1;
}

CsvStream::CsvStream(QIODevice& in, QIODevice* copy) : in(in), copy(copy) {}

bool CsvStream::readPiece()
{
    if (inputEnded)
        return false;
    QByteArray piece = carried;
    carried.clear();
    const QByteArray more = in.read(kReadBytes);
    if (more.isEmpty()) {
        const QFileDevice* file = qobject_cast<QFileDevice*>(&in);
        readFailed = file && file->error() != QFileDevice::NoError;
        inputEnded = true;
    } else {
        read += more.size();
        if (copy && copy->write(more) != more.size()) {
            readFailed = true;
            inputEnded = true;
            return false;
        }
        piece += more;
        // Only whole lines go on, so that no character is cut in two.
        const qsizetype lastLineEnd = piece.lastIndexOf('\n');
        carried = piece.mid(lastLineEnd + 1);
        piece.truncate(lastLineEnd + 1);
    }
    const qsizetype from = reader.position();
    reader = CsvReader(reader.source().mid(from) + QString::fromUtf8(piece), reader.lineNumber());
    return true;
}

bool CsvStream::next(CsvReader::Row& row)
{
    for (;;) {
        const qsizetype before = reader.position();
        const int lineBefore = reader.lineNumber();
        if (reader.next(row) && (inputEnded || reader.endedWithLineEnd()))
            return true;
        // The row (or the blank lines before it) ran into the end of the
        // piece: read it again with the next piece behind it.
        reader = CsvReader(reader.source().mid(before), lineBefore);
        if (!readPiece())
            return inputEnded && !readFailed && reader.next(row);
    }
}

bool CsvReader::atLineEnd() const
{
    return pos >= text.size() || text[pos] == u'\n' || text[pos] == u'\r';
}

void CsvReader::skipLineEnd()
{
    if (pos < text.size() && text[pos] == u'\r')
        ++pos;
    if (pos < text.size() && text[pos] == u'\n')
        ++pos;
    ++line;
}

QString CsvReader::plainField()
{
    const qsizetype start = pos;
    while (!atLineEnd() && text[pos] != u',')
        ++pos;
    return text.mid(start, pos - start);
}

QString CsvReader::quotedField(Row& row)
{
    QString field;
    ++pos;   // the opening quote
    for (;;) {
        if (pos >= text.size()) {
            row.error = QStringLiteral("a quoted field is not closed");
            return field;
        }
        const QChar c = text[pos++];
        if (c == u'"') {
            if (pos < text.size() && text[pos] == u'"') {
                field += u'"';
                ++pos;
                continue;
            }
            if (!atLineEnd() && text[pos] != u',')
                row.error = QStringLiteral("text follows a closing quote");
            return field;
        }
        if (c == u'\n')
            ++line;
        field += c;
    }
}

bool CsvReader::next(Row& row)
{
    // Blank lines and comments are not rows.
    while (pos < text.size() && (atLineEnd() || text[pos] == u'#')) {
        while (!atLineEnd())
            ++pos;
        skipLineEnd();
    }
    if (pos >= text.size())
        return false;

    row = Row();
    row.line = line;
    for (;;) {
        row.fields << (text[pos] == u'"' ? quotedField(row) : plainField());
        if (!row.error.isEmpty()) {
            while (!atLineEnd())   // resume at the next line
                ++pos;
            break;
        }
        if (atLineEnd())
            break;
        ++pos;   // the comma
        if (pos >= text.size()) {
            row.fields << QString();
            break;
        }
    }
    skipLineEnd();
    return true;
}

QString csvField(const QString& text)
{
    bool needsQuotes = false;
    for (QChar c : text) {
        if (c == u',' || c == u'"' || c == u'\n' || c == u'\r') {
            needsQuotes = true;
            break;
        }
    }
    // Leading or trailing spaces would be taken for padding.
    if (!text.isEmpty() && (text.front().isSpace() || text.back().isSpace()))
        needsQuotes = true;
    if (!needsQuotes)
        return text;
    QString quoted = text;
    quoted.replace(u'"', QStringLiteral("\"\""));
    return u'"' + quoted + u'"';
}

CsvWriter::CsvWriter(std::FILE* out) : out(out)
{
    buffer.reserve(kFlushBytes + 4096);
}

CsvWriter::~CsvWriter()
{
    // A failure here is left in the stream's error flag, which main checks.
    if (!buffer.isEmpty())
        std::fwrite(buffer.constData(), 1, size_t(buffer.size()), out);
    std::fflush(out);
}

void CsvWriter::row(const QStringList& fields)
{
    buffer += fields.join(u',').toUtf8();
    buffer += '\n';
    if (buffer.size() >= kFlushBytes)
        flush();
}

void CsvWriter::row(const char* text, std::size_t size)
{
    buffer.append(text, qsizetype(size));
    buffer += '\n';
    if (buffer.size() >= kFlushBytes)
        flush();
}

void CsvWriter::blankLine()
{
    buffer += '\n';
}

void CsvWriter::flush()
{
    const bool written = buffer.isEmpty() || std::fwrite(buffer.constData(), 1, size_t(buffer.size()), out) ==
                                                 size_t(buffer.size());
    buffer.clear();
    if (!written || std::fflush(out) != 0)
        throw OutputFailed{errno};
}

} // namespace kelts

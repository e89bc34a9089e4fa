// CSV as kelts reads and writes it: "timestamp,value" rows, fields quoted
// the RFC 4180 way when they hold a comma, a quote or a line break.
#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QString>
#include <QStringList>

#include <cstdio>

namespace kelts {

// Splits text into rows of fields. Blank lines and lines starting with '#'
// are skipped; a quoted field may span lines. Each row carries the line it
// starts on, for messages.
class CsvReader {
public:
    // firstLine numbers the text's first line: a piece of a longer input
    // goes on counting where the one before stopped.
    explicit CsvReader(QString text, int firstLine = 1);

    struct Row {
        int line = 0;
        QStringList fields;
        QString error;   // set when the row could not be split
    };
    // False at the end of the text.
    bool next(Row& row);
    // Where the next row would be looked for, and its line.
    qsizetype position() const { return pos; }
    int lineNumber() const { return line; }
    // Whether the text before position() ends with a line end: the last row
    // handed out was complete, not cut off by the end of a piece.
    bool endedWithLineEnd() const { return pos > 0 && pos <= text.size() && text[pos - 1] == u'\n'; }
    const QString& source() const { return text; }

private:
    bool atLineEnd() const;
    void skipLineEnd();
    QString quotedField(Row& row);
    QString plainField();

    QString text;
    qsizetype pos = 0;
    int line = 1;
};

// Rows of CSV read from a device a piece at a time, in bounded memory: a
// row is handed out once its line end (or the end of the input) was read,
// so that a quoted field may span pieces. What is read may be copied to a
// second device as it comes (a pipe kept for a second pass).
class CsvStream {
public:
    explicit CsvStream(QIODevice& in, QIODevice* copy = nullptr);

    // False at the end of the input, or when it could not be read or
    // copied (failed() then tells).
    bool next(CsvReader::Row& row);
    qint64 bytesRead() const { return read; }
    bool failed() const { return readFailed; }

private:
    // Reads the next piece; false at the end of the input.
    bool readPiece();

    QIODevice& in;
    QIODevice* copy;
    CsvReader reader{QString()};
    QByteArray carried;   // bytes after the last line end read so far
    bool inputEnded = false;
    bool readFailed = false;
    qint64 read = 0;
};

// The field as it must appear in a CSV row.
QString csvField(const QString& text);

// Rows to a stdio stream, through a buffer that is handed over in large
// pieces, so that millions of rows print quickly.
class CsvWriter {
public:
    explicit CsvWriter(std::FILE* out = stdout);
    ~CsvWriter();
    CsvWriter(const CsvWriter&) = delete;
    CsvWriter& operator=(const CsvWriter&) = delete;

    // Fields are written as given: quote them with csvField where needed.
    void row(const QStringList& fields);
    // A row already written as text, without its line end.
    void row(const char* text, std::size_t size);
    void blankLine();
    // Hands the rows to the stream; throws OutputFailed when it refuses them.
    void flush();

private:
    std::FILE* out;
    QByteArray buffer;
};

} // namespace kelts

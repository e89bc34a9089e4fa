// CSV as kelts reads and writes it: "timestamp,value" rows, fields quoted
// the RFC 4180 way when they hold a comma, a quote or a line break.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdio>

namespace kelts {

// Splits text into rows of fields. Blank lines and lines starting with '#'
// are skipped; a quoted field may span lines. Each row carries the line it
// starts on, for messages.
class CsvReader {
public:
    explicit CsvReader(QString text);

    struct Row {
        int line = 0;
        QStringList fields;
        QString error;   // set when the row could not be split
    };
    // False at the end of the text.
    bool next(Row& row);

private:
    bool atLineEnd() const;
    void skipLineEnd();
    QString quotedField(Row& row);
    QString plainField();

    QString text;
    qsizetype pos = 0;
    int line = 1;
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

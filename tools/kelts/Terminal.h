// What kelts says on stderr besides its own messages: the library's log
// lines, in words for operators, and progress of long writes and reads,
// shown only when stderr is a terminal so that scripts and logs stay clean.
#pragma once

#include <QElapsedTimer>
#include <QLocale>
#include <QString>

namespace kelts {

enum class Verbosity {
    Quiet,     // the library's failures only
    Normal,    // failures and warnings; a flood of one kind is cut short
    Verbose,   // everything, with the library's source and line
};

// Routes the library's log lines (Kel::Logger) to stderr.
void installLogSink(Verbosity verbosity);
// The library's failures (errors) logged so far, shown or not.
long long libraryFailures();
// One line per kind of library message that was cut short; call at exit.
void reportSuppressedLogLines();

bool stderrIsTerminal();

// "writing  1,200,000 of 3,000,000 records  40%", redrawn in place at most
// ten times a second; silent when stderr is not a terminal.
class Progress {
public:
    explicit Progress(QString what);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const QString& state);
    void done();

private:
    QString what;
    bool active;
    QElapsedTimer sinceShown;
};

// Prints a message line on stderr, clearing a progress line first.
void printErrorLine(const QString& line);

// The locale of the tool's texts, whatever the machine's: English, digits
// grouped by commas.
const QLocale& textLocale();
// 1234567 as "1,234,567".
QString grouped(long long n);

} // namespace kelts

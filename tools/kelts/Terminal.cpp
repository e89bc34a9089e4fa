// The log sink and the progress line on stderr.

#include "Terminal.h"

#include "Commands.h"

#include "KelLogger.h"

#include <QHash>
#include <QLocale>
#include <QList>

#include <cstdio>
#include <mutex>
#include <unistd.h>

namespace kelts {

namespace {

// Of each kind of message (one place in the library) this many are shown
// before the rest is only counted.
constexpr int kShownPerKind = 3;

bool progressLineShown = false;

void clearProgressLine()
{
    if (progressLineShown) {
        std::fputs("\r\033[K", stderr);
        progressLineShown = false;
    }
}

const char* wordFor(unsigned char level)
{
    if (level <= 3)
        return "error";
    if (level <= 5)
        return "warning";
    return "note";
}

struct SuppressedKind {
    QString example;
    int count = 0;
};

class LogSink {
public:
    explicit LogSink(Verbosity verbosity) : verbosity(verbosity) {}

    void take(const Kel::LogEntry& e)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (e.level <= 3)
            ++failures;
        if (verbosity == Verbosity::Quiet && e.level > 3)
            return;
        if (verbosity != Verbosity::Verbose && e.level > 5)
            return;
        const QString kind = e.sourceFile + u':' + QString::number(e.line);
        if (verbosity != Verbosity::Verbose && ++shown[kind] > kShownPerKind) {
            SuppressedKind& s = suppressed[kind];
            if (s.count++ == 0) {
                s.example = e.message;
                order << kind;
            }
            return;
        }
        QString line = QStringLiteral("%1: %2: %3").arg(programName(), QLatin1String(wordFor(e.level)), e.message);
        if (verbosity == Verbosity::Verbose)
            line += QStringLiteral(" [%1]").arg(kind);
        printErrorLine(line);
    }

    void report()
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const QString& kind : order) {
            const SuppressedKind& s = suppressed[kind];
            printErrorLine(QStringLiteral("%1: %2 more messages like \"%3\" not shown (-v shows all)")
                               .arg(programName(), grouped(s.count), s.example));
        }
        order.clear();
        suppressed.clear();
    }

    long long failuresSeen()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return failures;
    }

private:
    std::mutex mutex;
    Verbosity verbosity;
    long long failures = 0;
    QHash<QString, int> shown;
    QHash<QString, SuppressedKind> suppressed;
    QList<QString> order;
};

LogSink* theSink = nullptr;

} // namespace

void installLogSink(Verbosity verbosity)
{
    delete theSink;
    theSink = new LogSink(verbosity);
    Kel::Logger::instance().setSink([](const Kel::LogEntry& e) { theSink->take(e); });
}

long long libraryFailures()
{
    return theSink ? theSink->failuresSeen() : 0;
}

void reportSuppressedLogLines()
{
    if (theSink)
        theSink->report();
}

bool stderrIsTerminal()
{
    static const bool terminal = isatty(fileno(stderr)) == 1;
    return terminal;
}

void printErrorLine(const QString& line)
{
    clearProgressLine();
    std::fputs(line.toLocal8Bit().constData(), stderr);
    std::fputc('\n', stderr);
}

Progress::Progress(QString what) : what(std::move(what)), active(stderrIsTerminal())
{
    sinceShown.start();
}

Progress::~Progress()
{
    done();
}

void Progress::show(const QString& state)
{
    if (!active || (progressLineShown && sinceShown.elapsed() < 100))
        return;
    sinceShown.restart();
    std::fprintf(stderr, "\r\033[K%s  %s", what.toLocal8Bit().constData(), state.toLocal8Bit().constData());
    std::fflush(stderr);
    progressLineShown = true;
}

void Progress::done()
{
    if (active)
        clearProgressLine();
    active = false;
}

const QLocale& textLocale()
{
    static const QLocale locale(QLocale::English, QLocale::UnitedStates);
    return locale;
}

QString grouped(long long n)
{
    return textLocale().toString(n);
}

} // namespace kelts

// KelLogger: the logging interface of the host system, implemented by this
// project so that the storage library can be built and tested on its own.
//
// A message is started with Logger::out(), its %1, %2, ... placeholders are
// filled with LogMessage::arg() in order, and LogMessage::endl() hands the
// finished entry to the sink. Levels follow syslog numbering: 2 critical,
// 4 warning, 7 debug.
#pragma once

#include <QString>
#include <QVariant>
#include <QList>

#include <functional>

#if defined(KELLOGGER_BUILDING)
#  define KELLOGGER_EXPORT __attribute__((visibility("default")))
#else
#  define KELLOGGER_EXPORT
#endif

namespace Kel {

struct LogEntry {                // one finished message, placeholders filled
    unsigned char level = 0;     // 2 failure, 4 warning, 7 progress (syslog numbering)
    QString message;
    QString sourceFile;          // as passed to out()
    int line = 0;
};

class Logger;

class KELLOGGER_EXPORT LogMessage {
public:
    LogMessage& arg(const QVariant& value);   // fills the lowest-numbered %N left
    void endl();                               // hands the entry to the sink

private:
    friend class Logger;
    LogMessage(Logger* logger, unsigned char level, const QString& message,
               const char* sourceFile, int line);

    Logger* logger;      // null when no sink wants the entry: arg() and endl() do nothing
    LogEntry entry;
    QList<QString> args;
};

class KELLOGGER_EXPORT Logger {
public:
    static Logger& instance();
    LogMessage out(unsigned char level, const QString& message, const char* sourceFile, int line);
    using Sink = std::function<void(const LogEntry&)>;
    void setSink(Sink sink);                   // empty Sink restores the default

    // The name of a syslog level ("critical", "warning", ...); "level N" for
    // numbers outside 0 to 7.
    static QString levelName(unsigned char level);

    // Fills %1, %2, ... of a message with the arguments in one pass, so that a
    // %N inside an argument is never filled again.
    static QString format(const QString& message, const QList<QString>& args);

private:
    Logger();
    friend class LogMessage;
    void deliver(const LogEntry& entry);
    bool wants(unsigned char level) const;

    Sink sink;
    int defaultThreshold;
};

} // namespace Kel

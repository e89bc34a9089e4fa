#include "KelLogger.h"

#include <QDateTime>

#include <algorithm>
#include <cstdio>
#include <mutex>

namespace Kel {

namespace {

std::mutex& sinkMutex()
{
    static std::mutex m;
    return m;
}

int thresholdFromEnvironment()
{
    bool ok = false;
    const int level = qEnvironmentVariableIntValue("KEL_LOG_LEVEL", &ok);
    return ok ? level : 4;
}

void writeToStderr(const LogEntry& e)
{
    const QByteArray line = QStringLiteral("%1 %2 %3:%4 %5\n")
                                .arg(QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs),
                                     Logger::levelName(e.level), e.sourceFile,
                                     QString::number(e.line), e.message)
                                .toUtf8();
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
}

} // namespace

LogMessage::LogMessage(Logger* logger, unsigned char level, const QString& message,
                       const char* sourceFile, int line)
    : logger(logger)
{
    if (!logger)
        return;
    entry.level = level;
    entry.message = message;
    entry.sourceFile = QString::fromUtf8(sourceFile ? sourceFile : "");
    entry.line = line;
}

LogMessage& LogMessage::arg(const QVariant& value)
{
    if (logger)
        args.append(value.toString());
    return *this;
}

void LogMessage::endl()
{
    if (!logger)
        return;
    entry.message = Logger::format(entry.message, args);
    logger->deliver(entry);
    logger = nullptr;
}

Logger::Logger() : defaultThreshold(thresholdFromEnvironment()) {}

Logger& Logger::instance()
{
    static Logger logger;
    return logger;
}

LogMessage Logger::out(unsigned char level, const QString& message, const char* sourceFile, int line)
{
    return LogMessage(wants(level) ? this : nullptr, level, message, sourceFile, line);
}

void Logger::setSink(Sink s)
{
    std::lock_guard<std::mutex> lock(sinkMutex());
    sink = std::move(s);
}

bool Logger::wants(unsigned char level) const
{
    std::lock_guard<std::mutex> lock(sinkMutex());
    return sink || level <= defaultThreshold;
}

void Logger::deliver(const LogEntry& entry)
{
    std::lock_guard<std::mutex> lock(sinkMutex());
    if (sink)
        sink(entry);
    else if (entry.level <= defaultThreshold)
        writeToStderr(entry);
}

QString Logger::levelName(unsigned char level)
{
    static const char* const names[] = {"emergency", "alert", "critical", "error",
                                        "warning", "notice", "info", "debug"};
    if (level < 8)
        return QString::fromLatin1(names[level]);
    return QStringLiteral("level %1").arg(level);
}

QString Logger::format(const QString& message, const QList<QString>& args)
{
    if (args.isEmpty())
        return message;

    // Placeholder numbers in ascending order: the lowest gets the first argument.
    QList<int> numbers;
    for (qsizetype i = 0; i + 1 < message.size(); ++i) {
        if (message[i] != u'%' || !message[i + 1].isDigit())
            continue;
        int n = message[i + 1].digitValue();
        if (i + 2 < message.size() && message[i + 2].isDigit())
            n = n * 10 + message[i + 2].digitValue();
        if (n > 0 && !numbers.contains(n))
            numbers.append(n);
    }
    std::sort(numbers.begin(), numbers.end());

    QString out;
    out.reserve(message.size() + 32);
    for (qsizetype i = 0; i < message.size(); ++i) {
        if (message[i] == u'%' && i + 1 < message.size() && message[i + 1].isDigit()) {
            int n = message[i + 1].digitValue();
            qsizetype len = 2;
            if (i + 2 < message.size() && message[i + 2].isDigit()) {
                n = n * 10 + message[i + 2].digitValue();
                len = 3;
            }
            const qsizetype index = numbers.indexOf(n);
            if (index >= 0 && index < args.size()) {
                out += args[index];
                i += len - 1;
                continue;
            }
        }
        out += message[i];
    }
    return out;
}

} // namespace Kel

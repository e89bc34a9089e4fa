// Helpers shared by the tests: captured log lines, scratch trees and bytes.
#pragma once

#include "KelLogger.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <ostream>
#include <vector>

// Failures show texts as text.
inline void PrintTo(const QString& text, std::ostream* os)
{
    *os << '"' << text.toStdString() << '"';
}

namespace Kel::test {

// Collects every log line while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    int count(const QString& containing) const;
    bool contains(const QString& containing) const { return count(containing) > 0; }
    std::vector<LogEntry> entries;
};

// Milliseconds since the epoch of an ISO 8601 UTC text such as "2024-05-07T09:03:00Z".
long long ms(const char* iso);

QByteArray readBytes(const QString& path);
void writeBytes(const QString& path, const QByteArray& bytes);
// Creates an empty file (and its parent directories).
void touch(const QString& path);
void makeDir(const QString& path);

// Sets an environment variable while it lives, then restores it; the C
// library's time zone follows TZ either way.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const QByteArray& value);
    ~ScopedEnv();
    void set(const QByteArray& value);

private:
    const char* name;
    QByteArray saved;
    bool wasSet;
};

} // namespace Kel::test

#include "TestSupport.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <ctime>

namespace Kel::test {

LogCapture::LogCapture()
{
    Logger::instance().setSink([this](const LogEntry& e) { entries.push_back(e); });
}

LogCapture::~LogCapture()
{
    Logger::instance().setSink({});
}

int LogCapture::count(const QString& containing) const
{
    int n = 0;
    for (const LogEntry& e : entries)
        n += e.message.contains(containing) ? 1 : 0;
    return n;
}

long long ms(const char* iso)
{
    return QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs).toMSecsSinceEpoch();
}

QByteArray readBytes(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(bytes);
}

void touch(const QString& path)
{
    writeBytes(path, QByteArray());
}

void makeDir(const QString& path)
{
    QDir().mkpath(path);
}

ScopedEnv::ScopedEnv(const char* name, const QByteArray& value)
    : name(name), saved(qgetenv(name)), wasSet(qEnvironmentVariableIsSet(name))
{
    set(value);
}

ScopedEnv::~ScopedEnv()
{
    if (wasSet)
        qputenv(name, saved);
    else
        qunsetenv(name);
    tzset();
}

void ScopedEnv::set(const QByteArray& value)
{
    qputenv(name, value);
    tzset();
}

} // namespace Kel::test

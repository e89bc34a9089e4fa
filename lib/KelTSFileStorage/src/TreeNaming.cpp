// Naming of the date tree: which period a file covers, judged by its place
// in the tree, and the names of the tree's entries.

#include "TSDirControl.h"
#include "TSFileInfo.h"

#include "Calendar.h"
#include "Logging.h"
#include "PathKind.h"
#include "TreeNaming.h"

#include <Poco/Exception.h>

#include <QStringList>

namespace Kel {

namespace {

// Year, month, day, hour and minute, preset to the start of 1970.
struct CalendarFields {
    int v[5] = {1970, 1, 1, 0, 0};
    int year() const { return v[0]; }
    int month() const { return v[1]; }
};

int numberOrZero(const QString& text)
{
    bool ok = false;
    const int n = text.toInt(&ok, 10);
    return ok ? n : 0;
}

// The calendar fields named by the directory parts and the file's own name.
CalendarFields fieldsOfPath(const QString& subDir, const QString& fileName)
{
    CalendarFields f;
    const QStringList parts = subDir.split(u'/', Qt::SkipEmptyParts);
    const int count = int(parts.size());
    for (int i = 0; i < count && i < 5; ++i)
        f.v[i] = numberOrZero(parts[i]);
    if (count < 5 && !fileName.isEmpty())
        f.v[count] = numberOrZero(fileName);
    return f;
}

// The start of the period the fields name, in ms; false when they name no date.
bool startOfFields(const CalendarFields& f, long long& ms)
{
    try {
        const Poco::DateTime date(f.v[0], f.v[1], f.v[2], f.v[3], f.v[4], 0, 0, 0);
        ms = date.timestamp().epochMicroseconds() / 1000;
        return true;
    } catch (const Poco::Exception&) {
        ms = 0;
        return false;
    }
}

} // namespace

TSFileInfo::TSFileInfo() = default;

TSFileInfo::TSFileInfo(QFileInfo fileInfo, QString subDir)
    : QFileInfo(std::move(fileInfo)), subDir(std::move(subDir))
{
}

TSFileInfo::~TSFileInfo() = default;

bool TSFileInfo::found() const
{
    if (exists() && isFile())
        return true;
    // The file info does not tell an absent file from one that the system
    // would not look up: asked again directly, the second is logged.
    return !filePath().isEmpty() && detail::isFilePath(filePath());
}

QString TSFileInfo::getSubDir() const
{
    return subDir;
}

TSFileInfo::DirDepth TSFileInfo::getDirDepth() const
{
    return DirDepth(subDir.split(u'/', Qt::SkipEmptyParts).size());
}

long long TSFileInfo::getBaseTsMs() const
{
    long long base = 0;
    if (!startOfFields(fieldsOfPath(subDir, fileName()), base))
        Logger::instance()
            .out(detail::LOG_FAILURE, QStringLiteral("Exception on getBaseTsMs - DateTime"),
                 detail::kFileInfoSource, 68)
            .endl();
    return base;
}

long long TSFileInfo::getPeriodEndTsMs() const
{
    const CalendarFields f = fieldsOfPath(subDir, fileName());
    long long base = 0;
    if (!startOfFields(f, base))
        return 0;
    constexpr long long dayMs = 86400000LL;
    switch (getDirDepth()) {
    case DEPTH_YEAR:
        return base + (detail::isLeapYear(f.year()) ? 366 : 365) * dayMs;
    case DEPTH_MONTH:
        return base + detail::daysInMonth(f.year(), f.month()) * dayMs;
    case DEPTH_DAY:
        return base + dayMs;
    case DEPTH_HOUR:
        return base + 3600000LL;
    default:
        return base + 60000LL;
    }
}

TSDirControl::TSDirControl(QString dir) : baseDir(std::move(dir))
{
    baseDir.replace(u'\\', u'/');
    if (!baseDir.endsWith(u'/'))
        baseDir += u'/';
}

TSDirControl::~TSDirControl() = default;

QString detail::levelName(const Poco::DateTime& dateTime, TSFileInfo::DirDepth depth)
{
    int value = dateTime.year();
    int width = 4;
    switch (depth) {
    case TSFileInfo::DEPTH_MONTH: value = dateTime.month(); width = 2; break;
    case TSFileInfo::DEPTH_DAY: value = dateTime.day(); width = 2; break;
    case TSFileInfo::DEPTH_HOUR: value = dateTime.hour(); width = 2; break;
    case TSFileInfo::DEPTH_MINUTE: value = dateTime.minute(); width = 2; break;
    default: break;
    }
    return QStringLiteral("%1").arg(value, width, 10, QLatin1Char('0'));
}

QString TSDirControl::getFileNameForDepth(Poco::DateTime dateTime, TSFileInfo::DirDepth depth)
{
    return detail::levelName(dateTime, depth);
}

} // namespace Kel

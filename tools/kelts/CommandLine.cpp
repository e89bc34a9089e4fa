// Option parsing on top of QCommandLineParser, with kelts' own help texts.

#include "CommandLine.h"

#include "Series.h"

#include "Terminal.h"
#include "ValueText.h"

#include <cstdio>

namespace kelts {

CommandLine::CommandLine(const Command& command) : command(command)
{
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    flag(QStringLiteral("h,help"));
    flag(QStringLiteral("q,quiet"));
    flag(QStringLiteral("v,verbose"));
    option(QStringLiteral("tz"), QStringLiteral("ZONE"));
}

void CommandLine::flag(const QString& names, const QString& description)
{
    parser.addOption(QCommandLineOption(names.split(u','), description));
}

void CommandLine::option(const QString& names, const QString& valueName, const QString& description)
{
    parser.addOption(QCommandLineOption(names.split(u','), description, valueName));
}

bool CommandLine::parse(const QStringList& args, int minPositional, int maxPositional)
{
    // QCommandLineParser skips the first argument as the program's name.
    if (!parser.parse(QStringList{programName()} + args.mid(1)))
        fail(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(command.help, stdout);
        return false;
    }
    if (parser.isSet(QStringLiteral("quiet")) && parser.isSet(QStringLiteral("verbose")))
        fail(QStringLiteral("--quiet and --verbose exclude each other"));
    installLogSink(parser.isSet(QStringLiteral("quiet"))     ? Verbosity::Quiet
                   : parser.isSet(QStringLiteral("verbose")) ? Verbosity::Verbose
                                                             : Verbosity::Normal);
    if (parser.isSet(QStringLiteral("tz"))) {
        QTimeZone zone;
        QString why;
        if (!parseTimeZone(parser.value(QStringLiteral("tz")), zone, why))
            fail(why);
        setTimeZone(zone);
    }
    const qsizetype n = parser.positionalArguments().size();
    if (n < minPositional)
        fail(minPositional == 1 ? QStringLiteral("give the series directory")
                                : QStringLiteral("missing arguments"));
    if (n > maxPositional)
        fail(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().at(maxPositional)));
    return true;
}

bool CommandLine::isSet(const QString& name) const
{
    return parser.isSet(name);
}

QString CommandLine::value(const QString& name) const
{
    return parser.value(name);
}

QStringList CommandLine::positional() const
{
    return parser.positionalArguments();
}

QString CommandLine::required(const QString& name) const
{
    if (!parser.isSet(name))
        fail(QStringLiteral("--%1 is required").arg(name));
    return parser.value(name);
}

QMetaType::Type CommandLine::valueType() const
{
    return valueTypeOf(positional().value(0));
}

QMetaType::Type CommandLine::valueTypeOf(const QString& dir) const
{
    if (parser.isSet(QStringLiteral("type")))
        return *optionalValueType();
    // A directory that holds one value type's series, and a directory no
    // other type shares, needs no --type.
    const QStringList markers = dir.isEmpty() ? QStringList() : markersIn(dir);
    if (markers.size() == 1 && !typesOfMarker(markers.first()).contains(QLatin1String(" or ")))
        return representativeType(markers.first());
    if (markers.isEmpty())
        fail(QStringLiteral("--type is required: one of %1").arg(valueTypeNames()));
    QStringList held;
    for (const QString& marker : markers)
        held << QStringLiteral("%1 (%2/)").arg(typesOfMarker(marker), marker);
    fail(QStringLiteral("--type is required: %1 holds %2").arg(dir, held.join(QStringLiteral(", "))));
}

std::optional<QMetaType::Type> CommandLine::optionalValueType() const
{
    if (!parser.isSet(QStringLiteral("type")))
        return std::nullopt;
    QMetaType::Type type = QMetaType::UnknownType;
    QString why;
    if (!parseValueType(parser.value(QStringLiteral("type")), type, why))
        fail(why);
    return type;
}

TimeBound CommandLine::bound(const QString& name, TimeBound::Anchor fallback) const
{
    TimeBound b;
    b.anchor = fallback;
    if (!parser.isSet(name))
        return b;
    QString why;
    if (!parseBound(parser.value(name), b, why))
        fail(QStringLiteral("--%1: %2").arg(name, why));
    return b;
}

long long CommandLine::integer(const QString& name, long long fallback, long long min, long long max) const
{
    if (!parser.isSet(name))
        return fallback;
    bool ok = false;
    const long long n = parser.value(name).toLongLong(&ok);
    if (!ok || n < min || n > max)
        fail(QStringLiteral("--%1 takes a whole number from %2 to %3, not '%4'")
                 .arg(name).arg(min).arg(max).arg(parser.value(name)));
    return n;
}

long long CommandLine::interval(const QString& name) const
{
    long long interval = 0;
    QString why;
    if (parser.isSet(name) && !parseInterval(parser.value(name), interval, why))
        fail(QStringLiteral("--%1: %2").arg(name, why));
    return interval;
}

TimeFormat CommandLine::timeFormat() const
{
    TimeFormat format = TimeFormat::Iso;
    QString why;
    if (parser.isSet(QStringLiteral("time")) && !parseTimeFormat(parser.value(QStringLiteral("time")), format, why))
        fail(why);
    return format;
}

void CommandLine::fail(const QString& message) const
{
    throw UsageError{QStringLiteral("%1 %2: %3").arg(programName(), QLatin1String(command.name), message)};
}

} // namespace kelts

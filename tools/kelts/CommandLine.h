// The options of one command: declared by the command, parsed from its
// arguments, and read back typed. Every command takes --help, --quiet and
// --verbose; every mistake becomes a UsageError that names the option.
#pragma once

#include "Commands.h"
#include "TimeText.h"

#include <QCommandLineParser>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <optional>

namespace kelts {

class CommandLine {
public:
    explicit CommandLine(const Command& command);

    // names: "backfill", or "o,out" for a short and a long name.
    void flag(const QString& names, const QString& description = QString());
    void option(const QString& names, const QString& valueName, const QString& description = QString());

    // Parses the arguments (the first is the command's name). Prints the
    // command's help and returns false for --help; throws UsageError for
    // unknown options, missing values or a wrong number of arguments.
    // Installs the log sink for --quiet / --verbose.
    bool parse(const QStringList& args, int minPositional, int maxPositional);

    bool isSet(const QString& name) const;
    QString value(const QString& name) const;
    QStringList positional() const;

    // Typed values; each throws UsageError naming the option.
    QString required(const QString& name) const;
    // --type, or the one value type the first directory argument (or dir)
    // holds where no other type shares its directory; throws otherwise.
    QMetaType::Type valueType() const;
    QMetaType::Type valueTypeOf(const QString& dir) const;
    std::optional<QMetaType::Type> optionalValueType() const;
    TimeBound bound(const QString& name, TimeBound::Anchor fallback) const;
    long long integer(const QString& name, long long fallback, long long min, long long max) const;
    long long interval(const QString& name) const;
    TimeFormat timeFormat() const;   // --time, iso by default

    [[noreturn]] void fail(const QString& message) const;

private:
    const Command& command;
    QCommandLineParser parser;
};

} // namespace kelts

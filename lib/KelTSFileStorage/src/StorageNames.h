// The names of a series on disk: which directory entries belong to its date
// tree, the side file beside a storage file, the names of work in progress
// kept beside the files (rewrites, splits, deletes, the spare), and the
// companion series with their markers and value types. Everything that
// builds or recognises such a name, in the library and in the tool, takes it
// from here. Header only: the tool uses it without linking library internals.
#pragma once

#include <QMetaType>
#include <QString>
#include <QStringView>

#include <array>

namespace Kel::detail::names {

// A level of the date tree: a year of four characters, a month, day, hour or
// minute of two. Every other entry (side files, work in progress, strays,
// hidden names) stays out of lookups.
inline bool isTreeName(QStringView name)
{
    return name.size() == 2 || name.size() == 4;
}

// A storage file's values of variable length.
constexpr char kSideFileSuffix[] = ".var";
// A rewrite is written beside its file under this suffix, then renamed over it.
constexpr char kRewriteSuffix[] = ".new";
// A split builds the finer files in a directory beside the file.
constexpr char kSplitSuffix[] = ".split";
// Where a split puts the file aside where the file system cannot exchange two
// names in one rename.
constexpr char kSplitAsideSuffix[] = ".old";
// A directory that a delete has emptied is renamed out of the tree under this
// suffix before it is removed.
constexpr char kDeletedSuffix[] = ".deleted";
// The replaced contents of a rewritten file, in the series' directory.
constexpr char kSpareName[] = ".spare";

inline QString withSuffix(const QString& path, const char* suffix)
{
    return path + QLatin1String(suffix);
}

inline QString sideFile(const QString& storageFile)
{
    return withSuffix(storageFile, kSideFileSuffix);
}

// The companion series of a series: the log of back-filled timestamps and
// the record of overwritten values.
constexpr char kBackfillLog[] = "P";
constexpr char kOverwrittenValues[] = "O";

struct Companion {
    const char* marker;
    QMetaType::Type type;
};

constexpr Companion kBackfillLogCompanion{kBackfillLog, QMetaType::LongLong};
constexpr Companion kOverwrittenCompanion{kOverwrittenValues, QMetaType::QVariant};
constexpr std::array<Companion, 2> kCompanions = {kBackfillLogCompanion, kOverwrittenCompanion};

// The companion of a marker; null for any other marker.
inline const Companion* companionOf(const QString& marker)
{
    for (const Companion& c : kCompanions)
        if (marker == QLatin1String(c.marker))
            return &c;
    return nullptr;
}

// A companion's base directory: the series' base directory without its
// closing "/", then the marker and "/".
inline QString companionDir(const QString& seriesBaseDir, const QString& marker)
{
    return seriesBaseDir.chopped(1) + marker + u'/';
}

} // namespace Kel::detail::names

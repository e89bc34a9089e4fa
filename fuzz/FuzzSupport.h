// Shared by the fuzz targets: a scratch directory that each input starts from
// empty, a logger that drops every line (the library logs each fault it
// meets, and printing them would slow a run many times over), and the value
// types and time bounds that the targets pick from.
#pragma once

#include "KelLogger.h"
#include "RecordCodec.h"
#include "TSFileStorage.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

namespace Kel::fuzz {

// Fails the run the way a sanitizer would: libFuzzer keeps the input.
[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

// The library's log lines and Qt's own warnings (about corrupt serialised
// values) are dropped; KELTS_FUZZ_LOG=1 prints them, to follow one input.
inline void quietLogs()
{
    if (qEnvironmentVariableIsSet("KELTS_FUZZ_LOG")) {
        Logger::instance().setSink([](const LogEntry& e) { std::fprintf(stderr, "log: %s\n", qPrintable(e.message)); });
        return;
    }
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    Logger::instance().setSink([](const LogEntry&) {});
}

// The process's scratch directory, emptied. It lies in /dev/shm when there
// is one, so that the file work of a run stays in memory.
inline QString freshScratchDir()
{
    static QTemporaryDir dir(QDir(QStringLiteral("/dev/shm")).exists()
                                 ? QStringLiteral("/dev/shm/kelts-fuzz-XXXXXX")
                                 : QDir::tempPath() + QStringLiteral("/kelts-fuzz-XXXXXX"));
    if (!dir.isValid())
        fail("no scratch directory");
    QDir(dir.path()).removeRecursively();
    QDir().mkpath(dir.path());
    return dir.path() + u'/';
}

// One type of each width and kind of value field, Float (8 bytes on disk,
// 4 declared) and a variable type kept in side files.
inline QMetaType::Type pickType(FuzzedDataProvider& in)
{
    static const QMetaType::Type types[] = {QMetaType::Double, QMetaType::Float,    QMetaType::Int,
                                            QMetaType::Bool,   QMetaType::Short,    QMetaType::LongLong,
                                            QMetaType::UInt,   QMetaType::QString};
    return in.PickValueInArray(types);
}

// The first and last instants the tree can name: years 0 and 9999.
constexpr long long kYear0Ms = -62167219200000LL;
constexpr long long kYear10000Ms = 253402300800000LL;

inline void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(bytes);
}

} // namespace Kel::fuzz

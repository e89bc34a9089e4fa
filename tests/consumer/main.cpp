// Writes one record into a storage file and reads it back through the
// installed library.
#include "DbEngineAbstract.h"
#include "KelLogger.h"
#include "TSFileStorage.h"

#include <QDataStream>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

int main()
{
    QTemporaryDir dir;
    Kel::TSFileStorage storage(dir.path(), QMetaType::Double, 1000000);
    QFile file(dir.filePath(QStringLiteral("2024")));
    if (!storage.openFile(file, QIODevice::ReadWrite))
        return 1;
    QDataStream stream(&file);
    stream.setVersion(QDataStream::Qt_5_13);
    storage.writeDataRecord(stream, {1704067260000LL, QVariant(21.5)}, 1704067200000LL,
                            Kel::TSFileInfo::DEPTH_YEAR);
    file.seek(0);
    const auto rec = storage.readCurrDataRecord(stream, 1704067200000LL, Kel::TSFileInfo::DEPTH_YEAR);
    if (rec.timestamp != 1704067260000LL || rec.value.toDouble() != 21.5)
        return 2;
    std::printf("%s ok\n", qPrintable(DbEngineAbstract::CHANGELOG_NAME_HIST_ALARM));
    return 0;
}

// Fuzz target: the parts of a read request that come from outside: the
// method string, filter JSON and template JSON (the template file of the
// installation), each parsed as a read would parse it, then a read and a
// count of a small fixed series with the request that came out.

#include "FuzzSupport.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>

using namespace Kel;
using Record = Interpolate::DataRecord;

namespace {

// A day of minute values with a gap, a counter wrap and a NaN.
const long long kDayStart = 1717200000000LL;  // 2024-06-01T00:00:00Z

TSFileStorage& series()
{
    static QTemporaryDir dir;
    static TSFileStorage storage(dir.path(), QMetaType::Double, 4096);
    static bool written = false;
    if (!written) {
        std::vector<Record> records;
        for (int i = 0; i < 1440; ++i) {
            if (i >= 600 && i < 700)
                continue;
            const double value = i == 900 ? std::nan("") : double(i % 500) + 0.25 * (i % 7);
            records.push_back({kDayStart + i * 60000LL, value});
        }
        storage.writeDataRecords(records, false, false);
        written = true;
    }
    return storage;
}

// The template file of the installation, which loadTemplateParams reads.
QString installTemplateFile()
{
    static QTemporaryDir dir;
    static bool set = false;
    if (!set) {
        qputenv("VANTIK_INSTALL_PATH", (dir.path() + u'/').toUtf8());
        qputenv("VANTIK_CURRENT_PROJECT_LOCATION", (dir.path() + QStringLiteral("/none/")).toUtf8());
        set = true;
    }
    return dir.path() + QStringLiteral("/cfg/dms/InterpolateTemplates.json");
}

QByteArray bytes(const std::string& s)
{
    return QByteArray(s.data(), qsizetype(s.size()));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::quietLogs();
    series();
    installTemplateFile();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    static const long long kIntervals[] = {0, 1, 60, 300, 900, 3600, 86400, -1, -2, -3, -4, -5, -6};
    Interpolate::InterpolateParam param;
    param.method = QString::fromUtf8(bytes(in.ConsumeRandomLengthString(40)));
    param.interval = in.ConsumeBool() ? in.PickValueInArray(kIntervals) : in.ConsumeIntegral<int>();
    param.alignStartEndTimestamp = in.ConsumeBool();
    param.offsetMinFromUTC = in.ConsumeIntegralInRange(-1440, 1440);
    std::vector<Interpolate::InterpolateParam> chain;

    const QJsonDocument filters = QJsonDocument::fromJson(bytes(in.ConsumeRandomLengthString(300)));
    Interpolate::parseFilterparams(filters.array(), param);

    const bool useTemplate = in.ConsumeBool();
    if (useTemplate) {
        fuzz::writeFile(installTemplateFile(), bytes(in.ConsumeRandomLengthString(600)));
        Interpolate::loadTemplateParams(param.method, param, chain, param.offsetMinFromUTC);
    }

    // The engine parses the method string as a read does, then once more
    // with a method string of its own.
    std::vector<Record> scratch;
    int scratchCount = 0;
    Interpolate engine(param, chain, kDayStart, kDayStart + 86400000LL, kDayStart, kDayStart + 86340000LL,
                       &scratch, QMetaType::Double, false, scratchCount, false);
    engine.interpolateParamsFromArgs(QString::fromUtf8(bytes(in.ConsumeRandomLengthString(30))),
                                     in.ConsumeIntegralInRange(-6, 3600));

    const long long start = kDayStart + in.ConsumeIntegralInRange(-2LL * 86400000, 2LL * 86400000);
    const long long end = start + in.ConsumeIntegralInRange(-3600000LL, 3LL * 86400000);
    std::vector<Record> out;
    int limit = in.ConsumeIntegralInRange(0, 2000);
    series().readDataRecords(param, chain, start, end, out, in.ConsumeBool(), limit);
    series().getCount(param, chain, start, end, true, false, false);
    return 0;
}

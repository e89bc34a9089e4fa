// Fuzz target: a series tree built from the input (storage files of any size
// and content at any depth, side files of any content, stray names and
// directories), then every read over it: first, last, find, prev, raw and
// condensed ranges, counts, and walks over the files in both directions.
// Nothing may crash, hang or walk the files in a circle.

#include "FuzzSupport.h"

#include <QDataStream>

#include <vector>

using namespace Kel;
using Record = Interpolate::DataRecord;
using namespace Kel::fuzz;

namespace {

const char* const kYears[] = {"1969", "1970", "2023", "2024", "2025", "0000", "9999", "0001"};

// A name of the given depth: usually a valid one, sometimes one that is out
// of range or not a number at all.
QString nameFor(FuzzedDataProvider& in, int depth)
{
    if (depth == 0) {
        if (in.ConsumeBool())
            return QString::fromLatin1(in.PickValueInArray(kYears));
        return QString::number(in.ConsumeIntegralInRange(0, 9999)).rightJustified(4, u'0');
    }
    static const int highest[] = {0, 13, 32, 24, 60};
    switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0:
        return QStringLiteral("xZ");
    case 1:
        return QString::number(highest[depth] + in.ConsumeIntegralInRange(0, 40));
    default:
        return QString::number(in.ConsumeIntegralInRange(depth <= 2 ? 1 : 0, highest[depth] - 1))
            .rightJustified(2, u'0');
    }
}

// Serialised values as a side file holds them, with their positions.
QByteArray sideFile(FuzzedDataProvider& in, std::vector<qint32>& positions)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_5_13);
    const int n = in.ConsumeIntegralInRange(0, 6);
    for (int i = 0; i < n; ++i) {
        positions.push_back(qint32(bytes.size()));
        switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0: out << QVariant(QString::fromStdString(in.ConsumeRandomLengthString(40))); break;
        case 1: out << QVariant(in.ConsumeIntegral<int>()); break;
        case 2: out << QVariant(QVariantMap{{QStringLiteral("k"), in.ConsumeFloatingPoint<double>()}}); break;
        default: out << QVariant(); break;
        }
    }
    if (in.ConsumeBool()) {
        // Damage: bytes overwritten, cut off or added.
        const std::string junk = in.ConsumeRandomLengthString(32);
        const int at = in.ConsumeIntegralInRange(0, int(bytes.size()));
        bytes = bytes.left(at) + QByteArray(junk.data(), qsizetype(junk.size())) +
                (in.ConsumeBool() ? bytes.mid(at) : QByteArray());
    }
    return bytes;
}

// A storage file: records with rising (or, sometimes, any) offsets and values
// of any bits, perhaps with a partial record behind them; or plain bytes.
QByteArray storageFile(FuzzedDataProvider& in, QMetaType::Type type, int depth,
                       const std::vector<qint32>& positions)
{
    if (in.ConsumeIntegralInRange(0, 5) == 0) {
        const std::string raw = in.ConsumeRandomLengthString(200);
        return QByteArray(raw.data(), qsizetype(raw.size()));
    }
    const detail::RecordLayout layout(type, depth);
    const int n = in.ConsumeIntegralInRange(0, 40);
    const bool sorted = in.ConsumeIntegralInRange(0, 7) != 0;
    const unsigned long long widest = (1ULL << (8 * layout.offsetWidth)) - 1;
    QByteArray bytes(n * layout.stride, '\0');
    auto* p = reinterpret_cast<uchar*>(bytes.data());
    unsigned long long offset = 0;
    for (int i = 0; i < n; ++i, p += layout.stride) {
        offset = sorted ? std::min(widest, offset + in.ConsumeIntegralInRange<unsigned long long>(0, 100000))
                        : in.ConsumeIntegralInRange<unsigned long long>(0, widest);
        detail::encodeOffset(p, offset, layout.offsetWidth);
        uchar* field = p + layout.offsetWidth;
        if (layout.variable && !positions.empty() && in.ConsumeBool())
            detail::encodeVarPosition(field, positions[in.ConsumeIntegralInRange<size_t>(0, positions.size() - 1)]);
        else
            for (int b = layout.offsetWidth; b < layout.stride; ++b)
                *field++ = in.ConsumeIntegral<uchar>();
    }
    const int tail = in.ConsumeIntegralInRange(0, 3) == 0 ? in.ConsumeIntegralInRange(1, layout.stride - 1) : 0;
    return bytes + QByteArray(tail, '\x7f');
}

// Builds the tree; returns how many storage files it holds at most.
int buildTree(FuzzedDataProvider& in, const QString& base, QMetaType::Type type)
{
    const int entries = in.ConsumeIntegralInRange(0, 12);
    for (int e = 0; e < entries; ++e) {
        const int depth = in.ConsumeIntegralInRange(0, 4);
        QString rel;
        for (int d = 0; d <= depth; ++d)
            rel += (d ? QStringLiteral("/") : QString()) + nameFor(in, d);
        const QString path = base + rel;
        switch (in.ConsumeIntegralInRange(0, 9)) {
        case 0:  // a stray name beside the tree's own
            writeFile(path + QString::fromLatin1(in.PickValueInArray({".new", ".new.var", ".old", "x", ".split/01"})),
                      QByteArray("stray"));
            break;
        case 1:  // an empty directory where a file might be
            QDir().mkpath(path);
            break;
        default: {
            std::vector<qint32> positions;
            if (in.ConsumeBool())
                writeFile(path + QStringLiteral(".var"), sideFile(in, positions));
            writeFile(path, storageFile(in, type, depth, positions));
        }
        }
    }
    return entries;
}

long long pickTime(FuzzedDataProvider& in, const std::vector<long long>& known)
{
    switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0:
        return in.PickValueInArray({TSFileStorage::TS_NOW, TSFileStorage::TS_FIRST_RECORD,
                                    TSFileStorage::TS_LAST_RECORD});
    case 1:
        return in.ConsumeIntegralInRange(kYear0Ms - 1000, kYear10000Ms + 1000);
    default:
        return known[in.ConsumeIntegralInRange<size_t>(0, known.size() - 1)] +
               in.ConsumeIntegralInRange(-90000000LL, 90000000LL);
    }
}

// Walks the files from one end to the other: each step must move on in the
// order of the names, and a walk longer than the tree can hold goes in a
// circle.
void walk(TSDirControl& tree, bool forward, int limit)
{
    TSFileInfo info = forward ? tree.findFirstFile() : tree.findLastFile();
    QString lastName;
    for (int steps = 0; info.found(); ++steps) {
        if (steps > limit)
            fail("file walk does not end");
        const QString name = info.getSubDir() + info.fileName();
        if (steps > 0 && (forward ? name <= lastName : name >= lastName))
            fail("file walk goes back");
        lastName = name;
        info = forward ? tree.findNextFile(info) : tree.findPrevFile(info);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const QString dir = fuzz::freshScratchDir();
    const QMetaType::Type type = fuzz::pickType(in);
    TSFileStorage series(dir, type, 1 << 30);
    const int files = buildTree(in, series.baseDir, type);

    walk(series, true, files);
    walk(series, false, files);

    Record first, last, found;
    std::vector<long long> known{fuzz::kYear0Ms, 0, 1700000000000LL};
    if (series.getFirstDataRecord(first))
        known.push_back(first.timestamp);
    if (series.getLastDataRecord(last))
        known.push_back(last.timestamp);
    if (!in.ConsumeBool()) {
        // Stamps of the files too, so that finds hit records.
        for (TSFileInfo info = series.findFirstFile(); info.found(); info = series.findNextFile(info))
            known.push_back(info.getBaseTsMs());
    }

    static const char* const kMethods[] = {"prevNextLinearFill", "prev", "next", "minmax", "min",
                                           "max", "sum", "meanA", "meanG", "meanH", "meanS",
                                           "median", "mode", "count", "diff", "avgdiffCtrUpCleaned",
                                           "prevFillNull", "nextAlignFill"};
    static const long long kIntervals[] = {0, 1, 60, 900, 3600, 86400, -1, -2, -3, -4, -5, -6};
    while (in.remaining_bytes() > 0) {
        const long long t = pickTime(in, known);
        switch (in.ConsumeIntegralInRange(0, 4)) {
        case 0:
            series.findDataRecord(t, found);
            break;
        case 1:
            series.findPrevDataRecord(t, found);
            break;
        default: {
            Interpolate::InterpolateParam param;
            param.method = QString::fromLatin1(in.PickValueInArray(kMethods));
            param.interval = in.ConsumeBool() ? 0 : in.PickValueInArray(kIntervals);
            param.alignStartEndTimestamp = in.ConsumeBool();
            param.offsetMinFromUTC = in.ConsumeIntegralInRange(-720, 720);
            const long long end = pickTime(in, known);
            std::vector<Record> out;
            int limit = in.ConsumeIntegralInRange(0, 50);
            if (param.interval != 0 && limit == 0)
                limit = 500;  // a condensed read over centuries is big, not wrong
            if (qEnvironmentVariableIsSet("KELTS_FUZZ_LOG"))
                std::fprintf(stderr, "read %s interval %lld align %d offset %d from %lld to %lld limit %d\n",
                             qPrintable(param.method), param.interval, param.alignStartEndTimestamp,
                             param.offsetMinFromUTC, t, end, limit);
            series.readDataRecords(param, {}, t, end, out, in.ConsumeBool(), limit);
            series.getCount(param, {}, t, end, true, in.ConsumeBool(), in.ConsumeBool());
        }
        }
    }
    return 0;
}

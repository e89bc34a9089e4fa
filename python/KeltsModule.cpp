// _kelts: the storage library for Python. Reads hand back numpy arrays
// (times as int64 milliseconds, values in the series' natural dtype), writes
// take them; the package kelts (kelts/__init__.py) turns Python's times into
// milliseconds and wraps the arrays into pandas. A call the library refuses
// raises OSError with the failure it logged; a bad argument ValueError. The
// library's log lines go to Python's logging, logger "kelts".

#include "TimeText.h"
#include "ValueText.h"

#include "KelLogger.h"
#include "MethodKeywords.h"
#include "RecordCodec.h"
#include "TSFileColumns.h"
#include "TSFileQueries.h"
#include "TSFileStorage.h"

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

namespace py = pybind11;

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using Records = std::vector<Interpolate::DataRecord>;

// The failures the library logged during the current call.
QStringList& failures()
{
    static QStringList logged;
    return logged;
}

// Routes the library's log lines to logging.getLogger("kelts") and keeps its
// failures for the exception of the call.
void installLogSink()
{
    Kel::Logger::instance().setSink([](const Kel::LogEntry& e) {
        if (e.level <= 3)
            failures() << e.message;
        py::gil_scoped_acquire gil;
        try {
            static py::object logger = py::module_::import("logging").attr("getLogger")("kelts");
            const int level = e.level <= 3 ? 40 : e.level <= 5 ? 30 : 10;   // ERROR, WARNING, DEBUG
            logger.attr("log")(level, e.message.toStdString());
        } catch (const py::error_already_set&) {
            // logging is gone (the interpreter ends): the line is dropped.
        }
    });
}

[[noreturn]] void refuse(const QString& message)
{
    throw py::value_error(message.toStdString());
}

// Raises OSError with the failures the library logged, when it refused.
void expect(bool ok, const char* what)
{
    QStringList logged = failures();
    failures().clear();
    if (!ok) {
        const QString text = logged.isEmpty() ? QStringLiteral("the storage could not %1").arg(QLatin1String(what))
                                              : QStringLiteral("the storage could not %1: %2").arg(QLatin1String(what), logged.join(QStringLiteral("; ")));
        PyErr_SetString(PyExc_OSError, text.toUtf8().constData());
        throw py::error_already_set();
    }
}

// The numpy dtype of a value type's values.
py::dtype dtypeOf(QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Bool: return py::dtype::of<bool>();
    case QMetaType::Char: return py::dtype::of<qint8>();
    case QMetaType::UChar: return py::dtype::of<quint8>();
    case QMetaType::Short: return py::dtype::of<qint16>();
    case QMetaType::UShort: return py::dtype::of<quint16>();
    case QMetaType::Int: return py::dtype::of<qint32>();
    case QMetaType::UInt: return py::dtype::of<quint32>();
    case QMetaType::LongLong: return py::dtype::of<qint64>();
    case QMetaType::ULongLong: return py::dtype::of<quint64>();
    case QMetaType::Float: return py::dtype::of<float>();
    case QMetaType::Double: return py::dtype::of<double>();
    default: return py::dtype("O");
    }
}

template <typename T>
py::array numbers(const Records& records, T (*of)(const QVariant&))
{
    py::array_t<T> out(py::ssize_t(records.size()));
    T* p = out.mutable_data();
    for (const Interpolate::DataRecord& r : records)
        *p++ = of(r.value);
    return std::move(out);
}

// A Python object for a value of a text or JSON series; None for no value.
py::object objectOf(const QVariant& v, QMetaType::Type type)
{
    if (!v.isValid() || v.isNull())
        return py::none();
    if (type == QMetaType::QString)
        return py::str(v.toString().toStdString());
    return py::module_::import("json").attr("loads")(kelts::formatValue(v, type).toStdString());
}

// The values in their natural dtype; a condensed read of whole numbers with
// a missing value (fillNull) comes back as float64 with NaN.
py::array valuesOf(const Records& records, QMetaType::Type type)
{
    const bool anyMissing = std::any_of(records.begin(), records.end(), [](const Interpolate::DataRecord& r) { return !r.value.isValid(); });
    if (Kel::detail::isVariableType(type)) {
        py::array out(py::dtype("O"), py::ssize_t(records.size()));
        auto* p = static_cast<PyObject**>(out.mutable_data());
        for (const Interpolate::DataRecord& r : records) {
            py::object o = objectOf(r.value, type);
            Py_XDECREF(*p);
            *p++ = o.release().ptr();
        }
        return out;
    }
    const auto toDouble = +[](const QVariant& v) { return v.isValid() ? v.toDouble() : NAN; };
    if (anyMissing || type == QMetaType::Double)
        return numbers<double>(records, toDouble);
    switch (type) {
    case QMetaType::Bool: return numbers<bool>(records, +[](const QVariant& v) { return v.toBool(); });
    case QMetaType::Char: return numbers<qint8>(records, +[](const QVariant& v) { return qint8(v.toInt()); });
    case QMetaType::UChar: return numbers<quint8>(records, +[](const QVariant& v) { return quint8(v.toUInt()); });
    case QMetaType::Short: return numbers<qint16>(records, +[](const QVariant& v) { return qint16(v.toInt()); });
    case QMetaType::UShort: return numbers<quint16>(records, +[](const QVariant& v) { return quint16(v.toUInt()); });
    case QMetaType::Int: return numbers<qint32>(records, +[](const QVariant& v) { return qint32(v.toInt()); });
    case QMetaType::UInt: return numbers<quint32>(records, +[](const QVariant& v) { return quint32(v.toUInt()); });
    case QMetaType::LongLong: return numbers<qint64>(records, +[](const QVariant& v) { return qint64(v.toLongLong()); });
    case QMetaType::ULongLong: return numbers<quint64>(records, +[](const QVariant& v) { return quint64(v.toULongLong()); });
    case QMetaType::Float: return numbers<float>(records, +[](const QVariant& v) { return v.isValid() ? v.toFloat() : NAN; });
    default: return numbers<double>(records, toDouble);
    }
}

py::array timesOf(const Records& records)
{
    py::array_t<qint64> out(py::ssize_t(records.size()));
    qint64* p = out.mutable_data();
    for (const Interpolate::DataRecord& r : records)
        *p++ = r.timestamp;
    return std::move(out);
}

// A value from Python for a series of the type: numbers, bools, text, or
// any JSON value for a variant series; checked as kelts write checks text.
QVariant valueFrom(const py::handle& v, QMetaType::Type type)
{
    QVariant value;
    QString why;
    QString text;
    if (type == QMetaType::QVariant)
        text = QString::fromStdString(py::module_::import("json").attr("dumps")(v).cast<std::string>());
    else if (type == QMetaType::QString || py::isinstance<py::str>(v))
        text = QString::fromStdString(py::str(v).cast<std::string>());
    else if (py::isinstance<py::bool_>(v) || (py::hasattr(v, "dtype") && py::str(v.attr("dtype")).cast<std::string>() == "bool"))
        text = v.cast<bool>() ? QStringLiteral("true") : QStringLiteral("false");
    else if (type == QMetaType::Double || type == QMetaType::Float)
        text = QString::number(v.cast<double>(), 'g', 17);
    else
        text = QString::fromStdString(py::str(py::int_(py::reinterpret_borrow<py::object>(v))).cast<std::string>());
    if (!kelts::parseValue(text, type, value, why))
        refuse(why);
    return value;
}

// Records of a write from arrays handed to the storage at a time.
constexpr py::ssize_t kWritePiece = 262144;

class Series {
public:
    Series(const std::string& path, const std::string& typeName, int maxFileSize)
    {
        QString why;
        if (!kelts::parseValueType(QString::fromStdString(typeName), type, why))
            refuse(why);
        if (path.empty())
            refuse(QStringLiteral("give the series' directory"));
        storage = std::make_unique<TSFileStorage>(QString::fromStdString(path), type, maxFileSize);
    }

    py::tuple read(long long from, long long to, const std::string& method, const py::object& interval, bool align,
                   bool labelStart, int offsetMin, const std::string& filters, const std::string& templateName, int limit)
    {
        Interpolate::InterpolateParam param;
        std::vector<Interpolate::InterpolateParam> chain;
        param.offsetMinFromUTC = offsetMin;
        if (!templateName.empty())
            Interpolate::loadTemplateParams(QString::fromStdString(templateName), param, chain, offsetMin);
        if (!method.empty())
            param.method = QString::fromStdString(method);
        if (!interval.is_none())
            param.interval = intervalOf(interval);
        if (align)
            param.alignStartEndTimestamp = true;
        if (!filters.empty()) {
            QJsonParseError error;
            const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(filters), &error);
            if (error.error != QJsonParseError::NoError)
                refuse(QStringLiteral("filters: %1").arg(error.errorString()));
            Interpolate::parseFilterparams(doc.isObject() ? QJsonArray{doc.object()} : doc.array(), param);
        }
        checkMethod(param);
        if (limit < 0)
            refuse(QStringLiteral("limit takes 0 (none) or more"));
        const bool plainRaw = param.interval == 0 && param.method.isEmpty() && param.filterParams.empty() && chain.empty() &&
                              limit == 0 && !Kel::detail::isVariableType(type);
        if (plainRaw)
            return readColumns(from, to);
        Records out;
        int count = limit;
        failures().clear();
        expect(storage->readDataRecords(param, chain, from, to, out, labelStart, count), "read the series");
        if (limit > 0 && out.size() > size_t(limit))
            out.resize(size_t(limit));
        return py::make_tuple(timesOf(out), valuesOf(out, type));
    }

    // A raw read of fixed-length values: decoded by the library straight
    // into columns, copied once into the arrays.
    py::tuple readColumns(long long from, long long to)
    {
        auto columns = std::make_unique<Kel::RawColumns>();
        failures().clear();
        expect(Kel::readRawColumns(*storage, from, to, *columns), "read the series");
        // The arrays take the columns' memory over rather than a copy of it.
        auto* owner = columns.release();
        const py::capsule keep(owner, [](void* p) { delete static_cast<Kel::RawColumns*>(p); });
        const py::array times(py::dtype::of<qint64>(), {py::ssize_t(owner->timestamps.size())}, {}, owner->timestamps.data(), keep);
        if (type == QMetaType::Double)
            return py::make_tuple(times, py::array(py::dtype::of<double>(), {py::ssize_t(owner->reals.size())}, {}, owner->reals.data(), keep));
        const py::array wide = Kel::detail::isRealType(type)
                                   ? py::array(py::dtype::of<double>(), {py::ssize_t(owner->reals.size())}, {}, owner->reals.data(), keep)
                                   : py::array(py::dtype::of<qint64>(), {py::ssize_t(owner->wholes.size())}, {}, owner->wholes.data(), keep);
        if (type == QMetaType::ULongLong)
            return py::make_tuple(times, wide.attr("view")(dtypeOf(type)));
        return py::make_tuple(times, wide.attr("astype")(dtypeOf(type)));
    }

    long long write(const py::array_t<qint64, py::array::c_style | py::array::forcecast>& times, const py::sequence& values,
                    bool backfill, bool overwritten)
    {
        const py::ssize_t n = times.size();
        if (py::len(values) != size_t(n))
            refuse(QStringLiteral("%1 times and %2 values").arg(n).arg(py::len(values)));
        const qint64* t = times.data();
        // Times that only grow go in pieces: each piece appends behind the
        // one before, exactly as one batch would, and the pieces' memory is
        // taken again by the next rather than touched afresh.
        // Everything is checked before the first piece goes: a bad time or
        // value writes nothing.
        for (py::ssize_t i = 0; i < n; ++i)
            checkedTime(t[i]);
        const bool numbers = isNumericArray(values) && !Kel::detail::isVariableType(type);
        if (numbers && !Kel::detail::isRealType(type) && py::array(values).dtype().kind() != 'f')
            checkRange(values);
        const bool growing = std::adjacent_find(t, t + n, [](qint64 a, qint64 b) { return a >= b; }) == t + n;
        const py::ssize_t piece = growing && numbers ? kWritePiece : std::max<py::ssize_t>(n, 1);
        for (py::ssize_t first = 0; first < n || first == 0; first += piece) {
            const py::ssize_t last = std::min(n, first + piece);
            Records records;
            records.reserve(size_t(last - first));
            appendRecords(records, t, values, first, last);
            failures().clear();
            expect(storage->writeDataRecords(std::move(records), backfill, overwritten), "write the records");
            if (n == 0)
                break;
        }
        return n;

    }

    // The records [first, last) of the arrays: numbers straight from a numpy
    // array's buffer, other values through the checks of kelts write.
    void appendRecords(Records& records, const qint64* t, const py::sequence& values, py::ssize_t first, py::ssize_t last)
    {
        const bool numericArray = isNumericArray(values);
        if (numericArray && type == QMetaType::Double) {
            const auto doubles = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(values);
            const double* v = doubles.data();
            for (py::ssize_t i = first; i < last; ++i)
                records.push_back({checkedTime(t[i]), QVariant(v[i])});
        } else if (numericArray && py::array(values).dtype().kind() != 'f' && !Kel::detail::isVariableType(type) &&
                   !Kel::detail::isRealType(type) && type != QMetaType::ULongLong) {
            // Whole numbers of any integer dtype: each checked against the
            // type's range as kelts write checks text.
            const auto wholes = py::array_t<qint64, py::array::c_style | py::array::forcecast>::ensure(values);
            const qint64* v = wholes.data();
            for (py::ssize_t i = first; i < last; ++i) {
                records.push_back({checkedTime(t[i]), type == QMetaType::Bool ? QVariant(v[i] != 0)
                                                      : type == QMetaType::LongLong ? QVariant(qlonglong(v[i]))
                                                      : type == QMetaType::UInt ? QVariant(uint(v[i]))
                                                                                : QVariant(int(v[i]))});
            }
        } else {
            for (py::ssize_t i = first; i < last; ++i)
                records.push_back({checkedTime(t[i]), valueFrom(values[size_t(i)], type)});
        }
    }

    long long count(long long from, long long to, const std::string& method, const py::object& interval)
    {
        Interpolate::InterpolateParam param;
        param.method = QString::fromStdString(method);
        if (!interval.is_none())
            param.interval = intervalOf(interval);
        checkMethod(param);
        failures().clear();
        const long long n = storage->getCount(param, {}, from, to, true, false, false);
        expect(n >= 0, "count the records");
        return n;
    }

    py::object first() { return record([this](Interpolate::DataRecord& r) { return storage->getFirstDataRecord(r); }); }
    py::object last() { return record([this](Interpolate::DataRecord& r) { return storage->getLastDataRecord(r); }); }
    py::object find(long long at) { return record([&](Interpolate::DataRecord& r) { return storage->findDataRecord(at, r); }); }
    py::object prev(long long at)
    {
        return record([&](Interpolate::DataRecord& r) { return Kel::lastRecordBefore(*storage, at, r); });
    }

    long long remove(long long from, long long to, const std::string& marker)
    {
        if (marker != "" && marker != "P" && marker != "O")
            refuse(QStringLiteral("marker takes \"\", \"P\" or \"O\""));
        const QString m = QString::fromStdString(marker);
        const auto stored = [&] { return storage->getCount({}, {}, from, to, m.isEmpty(), m == u"P", m == u"O"); };
        const long long before = stored();
        failures().clear();
        expect(storage->deleteDataRecords(from, to, m), "delete the records");
        return before - stored();
    }

    std::string typeName() const { return kelts::valueTypeName(type).toStdString(); }
    std::string path() const { return storage->dir.toStdString(); }

private:
    template <typename Lookup>
    py::object record(Lookup lookup)
    {
        Interpolate::DataRecord r;
        failures().clear();
        const bool found = lookup(r);
        expect(found || failures().isEmpty(), "look up the record");
        if (!found)
            return py::none();
        Records one{r};
        py::array values = valuesOf(one, type);
        return py::make_tuple(r.timestamp, values[py::int_(0)]);
    }

    static bool isNumericArray(const py::sequence& values)
    {
        return py::isinstance<py::array>(values) && QByteArrayView("biuf").contains(py::array(values).dtype().kind());
    }

    // Whole numbers of any integer dtype must lie within the type's range,
    // as kelts write checks text.
    void checkRange(const py::sequence& values) const
    {
        const auto wholes = py::array_t<qint64, py::array::c_style | py::array::forcecast>::ensure(values);
        const qint64* v = wholes.data();
        const auto [lo, hi] = rangeOf(type);
        for (py::ssize_t i = 0; i < wholes.size(); ++i)
            if (v[i] < lo || v[i] > hi)
                refuse(QStringLiteral("%1 is not within the range of %2").arg(v[i]).arg(kelts::valueTypeName(type)));
    }

    static std::pair<qint64, qint64> rangeOf(QMetaType::Type type)
    {
        switch (type) {
        case QMetaType::Bool: return {0, 1};
        case QMetaType::Char: return {-128, 127};
        case QMetaType::UChar: return {0, 255};
        case QMetaType::Short: return {-32768, 32767};
        case QMetaType::UShort: return {0, 65535};
        case QMetaType::Int: return {INT32_MIN, INT32_MAX};
        case QMetaType::UInt: return {0, UINT32_MAX};
        default: return {INT64_MIN, INT64_MAX};
        }
    }

    static long long checkedTime(qint64 ms)
    {
        if (ms < kelts::kEarliestMs || ms > kelts::kLatestMs)
            refuse(QStringLiteral("%1 ms lies outside the years 0 to 9999").arg(ms));
        return ms;
    }

    static long long intervalOf(const py::object& interval)
    {
        QString why;
        long long value = 0;
        const QString text = QString::fromStdString(py::str(interval).cast<std::string>());
        if (!kelts::parseInterval(text, value, why))
            refuse(why);
        return value;
    }

    // As kelts read: a method string must start with a method name, for the
    // library reads anything else as linear interpolation.
    static void checkMethod(const Interpolate::InterpolateParam& param)
    {
        const QString rest = Kel::detail::withoutDifference(param.method);
        if (param.interval == 0 || rest.isEmpty())
            return;
        for (const Kel::detail::MethodKeyword& k : Kel::detail::kMethodKeywords)
            if (rest.startsWith(QLatin1String(k.keyword)))
                return;
        refuse(QStringLiteral("method '%1' starts with no method name (meanA, minMax, max, sum, ...)").arg(param.method));
    }

    QMetaType::Type type = QMetaType::UnknownType;
    std::unique_ptr<TSFileStorage> storage;
};

} // namespace

PYBIND11_MODULE(_kelts, m)
{
    m.doc() = "The storage library of kelts: series as numpy arrays (see the package kelts).";
    installLogSink();
    m.attr("TS_NOW") = TSFileStorage::TS_NOW;
    m.attr("TS_FIRST_RECORD") = TSFileStorage::TS_FIRST_RECORD;
    m.attr("TS_LAST_RECORD") = TSFileStorage::TS_LAST_RECORD;
    m.def("parse_time", [](const std::string& text) {
        long long ms = 0;
        QString why;
        if (!kelts::parseTimestamp(QString::fromStdString(text), ms, why))
            refuse(why);
        return ms;
    }, "Milliseconds of an ISO 8601 text, as kelts reads it.");
    m.def("dtype_of", [](const std::string& typeName) {
        QMetaType::Type type = QMetaType::UnknownType;
        QString why;
        if (!kelts::parseValueType(QString::fromStdString(typeName), type, why))
            refuse(why);
        return dtypeOf(type);
    }, "The numpy dtype of a value type's values.");
    py::class_<Series>(m, "_Series")
        .def(py::init<const std::string&, const std::string&, int>())
        .def("read", &Series::read)
        .def("write", &Series::write)
        .def("count", &Series::count)
        .def("first", &Series::first)
        .def("last", &Series::last)
        .def("find", &Series::find)
        .def("prev", &Series::prev)
        .def("delete", &Series::remove)
        .def_property_readonly("type", &Series::typeName)
        .def_property_readonly("path", &Series::path);
}

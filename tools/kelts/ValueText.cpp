// Parsing and printing of values by series type.

#include "ValueText.h"
#include <cmath>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

#include <charconv>
#include <cstring>
#include <limits>

namespace kelts {

namespace {

// from_chars takes no leading '+'; operators and spreadsheets write one.
QByteArray numberText(QStringView text)
{
    QByteArray bytes = text.trimmed().toLatin1();
    if (bytes.startsWith('+') && bytes.size() > 1 && bytes[1] != '-')
        bytes.remove(0, 1);
    return bytes;
}

template <typename T>
bool fromChars(const QByteArray& bytes, T& out)
{
    const char* end = bytes.constData() + bytes.size();
    const auto [ptr, ec] = std::from_chars(bytes.constData(), end, out);
    return ec == std::errc() && ptr == end && !bytes.isEmpty();
}

struct IntegerRange {
    long long min;
    unsigned long long max;
};

IntegerRange rangeOf(QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Char: return {-128, 127};
    case QMetaType::UChar: return {0, 255};
    case QMetaType::Short: return {-32768, 32767};
    case QMetaType::UShort: return {0, 65535};
    case QMetaType::Int: return {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()};
    case QMetaType::UInt: return {0, std::numeric_limits<unsigned>::max()};
    case QMetaType::ULongLong: return {0, std::numeric_limits<unsigned long long>::max()};
    default:
        return {std::numeric_limits<long long>::min(),
                static_cast<unsigned long long>(std::numeric_limits<long long>::max())};
    }
}

bool parseInteger(QStringView text, QMetaType::Type type, QVariant& value, QString& why)
{
    const QByteArray bytes = numberText(text);
    const IntegerRange range = rangeOf(type);
    const QString name = valueTypeName(type);
    if (bytes.startsWith('-')) {
        long long n = 0;
        if (!fromChars(bytes, n) || n < range.min) {
            why = range.min == 0 ? QStringLiteral("'%1' is negative, and %2 takes no sign").arg(text, name)
                                 : QStringLiteral("'%1' is not a whole number within the range of %2 (%3 to %4)")
                                       .arg(text, name).arg(range.min).arg(range.max);
            return false;
        }
        value = type == QMetaType::LongLong ? QVariant(qlonglong(n)) : QVariant(int(n));
        return true;
    }
    unsigned long long n = 0;
    if (!fromChars(bytes, n) || n > range.max) {
        why = QStringLiteral("'%1' is not a whole number within the range of %2 (%3 to %4)")
                  .arg(text, name).arg(range.min).arg(range.max);
        return false;
    }
    switch (type) {
    case QMetaType::LongLong: value = QVariant(qlonglong(n)); break;
    case QMetaType::ULongLong: value = QVariant(qulonglong(n)); break;
    case QMetaType::UInt: value = QVariant(uint(n)); break;
    default: value = QVariant(int(n)); break;
    }
    return true;
}

bool parseBool(QStringView text, QVariant& value, QString& why)
{
    const QStringView t = text.trimmed();
    if (t == u"1" || t.compare(u"true", Qt::CaseInsensitive) == 0) {
        value = QVariant(true);
        return true;
    }
    if (t == u"0" || t.compare(u"false", Qt::CaseInsensitive) == 0) {
        value = QVariant(false);
        return true;
    }
    why = QStringLiteral("'%1' is not a bool: give true, false, 1 or 0").arg(text);
    return false;
}

template <typename T>
bool parseFloating(QStringView text, QVariant& value, QString& why)
{
    T x = 0;
    if (!fromChars(numberText(text), x)) {
        why = QStringLiteral("'%1' is not a number%2")
                  .arg(text, sizeof(T) == sizeof(float) ? QStringLiteral(" within the range of float")
                                                        : QString());
        return false;
    }
    value = QVariant(x);
    return true;
}

bool parseJson(QStringView text, QVariant& value, QString& why)
{
    // Wrapped in an array so that a bare number or string is a document too.
    const QByteArray wrapped = "[" + text.toUtf8() + "]";
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(wrapped, &error);
    if (error.error != QJsonParseError::NoError || doc.array().size() != 1) {
        why = QStringLiteral("'%1' is not a JSON value (variant values are JSON: 42, \"text\", "
                             "{\"a\": 1})")
                  .arg(text);
        return false;
    }
    value = doc.array().first().toVariant();
    return true;
}

template <typename T>
QString shortestText(T x)
{
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, x);
    return ec == std::errc() ? QString::fromLatin1(buffer, int(end - buffer)) : QString();
}

QString jsonText(const QVariant& value)
{
    const QByteArray json = QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)})
                                .toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

} // namespace

const std::vector<ValueType>& valueTypes()
{
    static const std::vector<ValueType> types = {
        {"bool", QMetaType::Bool, "true or false"},
        {"char", QMetaType::Char, "whole number -128 to 127"},
        {"uchar", QMetaType::UChar, "whole number 0 to 255"},
        {"short", QMetaType::Short, "whole number -32768 to 32767"},
        {"ushort", QMetaType::UShort, "whole number 0 to 65535"},
        {"int", QMetaType::Int, "32-bit whole number"},
        {"uint", QMetaType::UInt, "32-bit whole number without sign"},
        {"long", QMetaType::LongLong, "64-bit whole number"},
        {"ulong", QMetaType::ULongLong, "64-bit whole number without sign"},
        {"float", QMetaType::Float, "single-precision number"},
        {"double", QMetaType::Double, "double-precision number"},
        {"string", QMetaType::QString, "text"},
        {"variant", QMetaType::QVariant, "any JSON value"},
    };
    return types;
}

bool parseValueType(QStringView name, QMetaType::Type& type, QString& why)
{
    for (const ValueType& t : valueTypes()) {
        if (name.compare(QLatin1String(t.name), Qt::CaseInsensitive) == 0) {
            type = t.type;
            return true;
        }
    }
    why = QStringLiteral("unknown type '%1': give one of %2").arg(name, valueTypeNames());
    return false;
}

QString valueTypeName(QMetaType::Type type)
{
    for (const ValueType& t : valueTypes())
        if (t.type == type)
            return QString::fromLatin1(t.name);
    return QString::fromLatin1(QMetaType(type).name());
}

QString valueTypeNames()
{
    QStringList names;
    for (const ValueType& t : valueTypes())
        names << QString::fromLatin1(t.name);
    return names.join(QStringLiteral(", "));
}

bool parseValue(QStringView text, QMetaType::Type type, QVariant& value, QString& why)
{
    switch (type) {
    case QMetaType::Bool: return parseBool(text, value, why);
    case QMetaType::Float: return parseFloating<float>(text, value, why);
    case QMetaType::Double: return parseFloating<double>(text, value, why);
    case QMetaType::QString: value = QVariant(text.toString()); return true;
    case QMetaType::QVariant: return parseJson(text, value, why);
    default: return parseInteger(text, type, value, why);
    }
}

QString formatValue(const QVariant& value, QMetaType::Type seriesType)
{
    if (!value.isValid())
        return QString();
    if (seriesType == QMetaType::QVariant)
        return jsonText(value);
    switch (value.typeId()) {
    case QMetaType::Bool: return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Double: return shortestText(value.toDouble());
    case QMetaType::Float: return shortestText(value.toFloat());
    default: return value.toString();
    }
}

char* writeValue(char* p, const QVariant& value, QMetaType::Type seriesType)
{
    if (!value.isValid())
        return p;
    if (seriesType == QMetaType::QVariant)
        return nullptr;
    char* const end = p + kValueTextBytes;
    switch (value.typeId()) {
    case QMetaType::Bool: {
        const char* text = value.toBool() ? "true" : "false";
        const size_t n = std::strlen(text);
        std::memcpy(p, text, n);
        return p + n;
    }
    case QMetaType::Double: return std::to_chars(p, end, value.toDouble()).ptr;
    case QMetaType::Float: return std::to_chars(p, end, value.toFloat()).ptr;
    case QMetaType::Int: return std::to_chars(p, end, value.toInt()).ptr;
    case QMetaType::UInt: return std::to_chars(p, end, value.toUInt()).ptr;
    case QMetaType::LongLong: return std::to_chars(p, end, value.toLongLong()).ptr;
    case QMetaType::ULongLong: return std::to_chars(p, end, value.toULongLong()).ptr;
    default: return nullptr;
    }
}

QString jsonValue(const QVariant& value, QMetaType::Type seriesType)
{
    if (!value.isValid() || value.isNull())
        return QStringLiteral("null");
    if ((value.typeId() == QMetaType::Double || value.typeId() == QMetaType::Float) && !std::isfinite(value.toDouble()))
        return QStringLiteral("null");
    const QString text = formatValue(value, seriesType);
    if (seriesType != QMetaType::QString)
        return text.isEmpty() ? QStringLiteral("null") : text;
    // QJsonDocument escapes a string only inside an array.
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

} // namespace kelts

// The value types of a series by the names operators use, and values as
// text: parsed strictly for writing (a value that would not survive the
// trip into the file is refused), printed faithfully for reading.
#pragma once

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QVariant>

#include <vector>

namespace kelts {

struct ValueType {
    const char* name;          // as given to --type
    QMetaType::Type type;      // as the library takes it
    const char* description;   // for help texts and info
};

// bool, char, uchar, short, ushort, int, uint, long, ulong, float, double,
// string and variant, in that order.
const std::vector<ValueType>& valueTypes();
bool parseValueType(QStringView name, QMetaType::Type& type, QString& why);
QString valueTypeName(QMetaType::Type type);
QString valueTypeNames();   // "bool, char, ..." for messages

// Parses the text of one value for a series of the given type. Integers
// must fit the type, floats its range; bool takes true/false/1/0; string
// takes the text as it is; variant takes a JSON value (42, "text",
// {"a": 1}, [1, 2], true, null).
bool parseValue(QStringView text, QMetaType::Type type, QVariant& value, QString& why);

// The value as text that reads back as the same value: shortest exact
// decimals for float and double, true/false for bool, JSON for variant
// series; an empty text for no value (a null of a fillNull read).
QString formatValue(const QVariant& value, QMetaType::Type seriesType);
// The same text written into p for a number, a bool or no value, which
// need no quotes in CSV: at most kValueTextBytes characters. Returns the
// end of the text, or null for a value that only formatValue writes (text,
// JSON).
constexpr int kValueTextBytes = 32;
// The value as a JSON value: numbers and bools as they are, text as a JSON
// string, variants as the JSON they hold; null for no value and for NaN
// and infinities, which JSON cannot write.
QString jsonValue(const QVariant& value, QMetaType::Type seriesType);
char* writeValue(char* p, const QVariant& value, QMetaType::Type seriesType);

} // namespace kelts

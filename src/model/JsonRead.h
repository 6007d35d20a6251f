#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

#include "model/DocumentError.h"

// Strict readers for the show file: a present field of the wrong type is an error of the whole
// file (DocumentError naming the field), a missing one gives the caller's default.
namespace JsonRead {

inline DocumentError wrongType(const QString& field) {
    return DocumentError(QStringLiteral("「%1」の値が正しくありません").arg(field));
}

inline DocumentError missing(const QString& field) {
    return DocumentError(QStringLiteral("「%1」がありません").arg(field));
}

inline DocumentError outOfRange(const QString& field, double lowest, double highest) {
    return DocumentError(
        QStringLiteral("「%1」の値が範囲外です（%2〜%3）").arg(field).arg(lowest).arg(highest));
}

inline double number(const QJsonObject& o, const QString& field, double fallback) {
    const QJsonValue v = o.value(field);
    if (v.isUndefined())
        return fallback;
    if (!v.isDouble())
        throw wrongType(field);
    return v.toDouble();
}

inline std::int64_t integer(const QJsonValue& v, const QString& field) {
    const double d = v.toDouble();
    if (!v.isDouble() || std::trunc(d) != d || std::fabs(d) > 9.0e15)
        throw wrongType(field);
    return static_cast<std::int64_t>(d);
}

inline std::int64_t integer(const QJsonObject& o, const QString& field, std::int64_t fallback) {
    const QJsonValue v = o.value(field);
    return v.isUndefined() ? fallback : integer(v, field);
}

// A number the editor bounds: outside [lowest, highest] is an error of the file.
inline double number(const QJsonObject& o, const QString& field, double fallback, double lowest,
                     double highest) {
    const double v = number(o, field, fallback);
    if (!(v >= lowest && v <= highest))
        throw outOfRange(field, lowest, highest);
    return v;
}

inline std::int64_t integer(const QJsonObject& o, const QString& field, std::int64_t fallback,
                            std::int64_t lowest, std::int64_t highest) {
    const std::int64_t v = integer(o, field, fallback);
    if (v < lowest || v > highest)
        throw outOfRange(field, static_cast<double>(lowest), static_cast<double>(highest));
    return v;
}

inline bool boolean(const QJsonObject& o, const QString& field, bool fallback) {
    const QJsonValue v = o.value(field);
    if (v.isUndefined())
        return fallback;
    if (!v.isBool())
        throw wrongType(field);
    return v.toBool();
}

inline QString string(const QJsonObject& o, const QString& field, const QString& fallback) {
    const QJsonValue v = o.value(field);
    if (v.isUndefined())
        return fallback;
    if (!v.isString())
        throw wrongType(field);
    return v.toString();
}

inline QString requiredString(const QJsonObject& o, const QString& field) {
    if (!o.contains(field))
        throw missing(field);
    return string(o, field, {});
}

inline std::optional<QString> optionalString(const QJsonObject& o, const QString& field) {
    if (!o.contains(field))
        return std::nullopt;
    return string(o, field, {});
}

inline std::optional<QStringList> optionalStrings(const QJsonObject& o, const QString& field) {
    if (!o.contains(field))
        return std::nullopt;
    const QJsonValue v = o.value(field);
    if (!v.isArray())
        throw wrongType(field);
    QStringList list;
    for (const QJsonValue& item : v.toArray()) {
        if (!item.isString())
            throw wrongType(field);
        list << item.toString();
    }
    return list;
}

inline QJsonArray strings(const QStringList& list) {
    return QJsonArray::fromStringList(list);
}

} // namespace JsonRead

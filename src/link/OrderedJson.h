#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QList>
#include <QPair>
#include <QString>

// A JSON object that keeps its keys in insertion order when written (QJsonObject sorts them).
// Values are written by Qt's JSON writer, so escaping and number formats stay standard.
class OrderedJson
{
public:
    /// Appends a key; keys are written in the order they were inserted.
    OrderedJson &insert(const QString &key, const QJsonValue &value);
    /// The keys in order.
    QStringList keys() const;
    /// Compact UTF-8 JSON text of the object.
    QByteArray toJson() const;

private:
    QList<QPair<QString, QJsonValue>> m_items;
};

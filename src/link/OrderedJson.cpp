#include "OrderedJson.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {
// Serialises one value with Qt's writer by wrapping it in an array and dropping the brackets.
QByteArray writeValue(const QJsonValue &value)
{
    QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return text.mid(1, text.size() - 2);
}
} // namespace

OrderedJson &OrderedJson::insert(const QString &key, const QJsonValue &value)
{
    m_items.append({key, value});
    return *this;
}

QStringList OrderedJson::keys() const
{
    QStringList out;
    for (const auto &item : m_items)
        out.append(item.first);
    return out;
}

QByteArray OrderedJson::toJson() const
{
    QByteArray out = "{";
    for (qsizetype i = 0; i < m_items.size(); ++i) {
        if (i)
            out += ',';
        out += writeValue(m_items[i].first);
        out += ':';
        out += writeValue(m_items[i].second);
    }
    out += '}';
    return out;
}

#pragma once

#include <QJsonObject>
#include <QStringList>

#include <initializer_list>
#include <utility>

// Lists and JSON objects written in a test from UTF-8 literals, each converted once here:
// strings({"mic", "sys"}) and J{{"type", "start"}, {"session", "s1"}, {"seat", 3}}.

/// The list of these texts, from UTF-8.
inline QStringList strings(std::initializer_list<const char *> utf8)
{
    QStringList out;
    for (const char *s : utf8)
        out.append(QString::fromUtf8(s));
    return out;
}

struct J : QJsonObject
{
    struct V : QJsonValue
    {
        using QJsonValue::QJsonValue;
        /// A text value, from UTF-8.
        V(const char *text) : QJsonValue(QString::fromUtf8(text)) {}
    };
    /// The object with these members, keys from UTF-8.
    J(std::initializer_list<std::pair<const char *, V>> items)
    {
        for (const auto &[key, value] : items)
            insert(QString::fromUtf8(key), value);
    }
};

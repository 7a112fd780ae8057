#pragma once

#include <QString>
#include <QStringList>

/// The keys of the outermost JSON object in `text`, in the order they are written.
inline QStringList topLevelJsonKeys(const QString &text)
{
    QStringList keys;
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    QString current;
    bool expectKey = false;
    for (QChar c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
                current += c;
            } else if (c == QLatin1Char('\\')) {
                escaped = true;
            } else if (c == QLatin1Char('"')) {
                inString = false;
                if (expectKey && depth == 1)
                    keys.append(current);
                expectKey = false;
            } else {
                current += c;
            }
            continue;
        }
        if (c == QLatin1Char('"')) {
            inString = true;
            current.clear();
        } else if (c == QLatin1Char('{') || c == QLatin1Char('[')) {
            ++depth;
            expectKey = c == QLatin1Char('{') && depth == 1;
        } else if (c == QLatin1Char('}') || c == QLatin1Char(']')) {
            --depth;
        } else if (c == QLatin1Char(',') && depth == 1) {
            expectKey = true;
        }
    }
    return keys;
}

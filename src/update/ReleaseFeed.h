#pragma once

#include "Release.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

// The release feed of the event web service: {"schema": 1, "edition": "show", "releases": [...]}.
// Unknown keys are ignored; a missing or mistyped key makes the whole document invalid.
class ReleaseFeed
{
public:
    /// Reads a feed document; nullopt with the reason in `error` when it does not decode.
    static std::optional<ReleaseFeed> decode(const QByteArray &json, QString *error);

    /// The first release, in document order, for this product and platform that is enabled;
    /// later matches are ignored even when newer.
    std::optional<Release> choose(const QString &product, const QString &platform) const;

    int schema = 0;
    QString edition;
    QList<Release> releases;
};

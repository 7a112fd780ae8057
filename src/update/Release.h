#pragma once

#include <QString>
#include <QUrl>

/// One published build of the agent as the release feed lists it.
struct Release
{
    QString product;  ///< "recorder" for this agent
    QString platform; ///< "linux" for this build
    QString version;  ///< dotted version, compared with UpdatePolicy::newer
    QUrl url;         ///< where the zip archive lies
    QString sha256;   ///< digest of the archive, 64 lower-case hexadecimal digits
    bool enabled = false;
};

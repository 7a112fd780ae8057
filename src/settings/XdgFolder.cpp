#include "XdgFolder.h"

#include <QDir>

namespace {

QString fromEnvironment(const char *variable, const QString &fallbackUnderHome)
{
    const QString value = qEnvironmentVariable(variable);
    // The XDG base directory rules ignore relative paths.
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return value;
    return QDir::homePath() + QLatin1Char('/') + fallbackUnderHome;
}

} // namespace

QString xdgFolder(XdgFolder folder)
{
    switch (folder) {
    case XdgFolder::Config:
        return fromEnvironment("XDG_CONFIG_HOME", QStringLiteral(".config"));
    case XdgFolder::Data:
        return fromEnvironment("XDG_DATA_HOME", QStringLiteral(".local/share"));
    case XdgFolder::Autostart:
        return xdgFolder(XdgFolder::Config) + QStringLiteral("/autostart");
    }
    Q_UNREACHABLE();
    return QString();
}

#include "DataFolder.h"

#include "XdgFolder.h"

#include <QDir>

namespace {
const QString kFolder = QStringLiteral("Brava Recorder");
}

namespace DataFolder {

QString dataDir()
{
    const QString path = xdgFolder(XdgFolder::Data) + QLatin1Char('/') + kFolder;
    QDir().mkpath(path);
    return path;
}

QString dir(const QString &name)
{
    const QString path = dataDir() + QLatin1Char('/') + name;
    QDir().mkpath(path);
    return path;
}

QString pathOf(const QString &name)
{
    return xdgFolder(XdgFolder::Data) + QLatin1Char('/') + kFolder + QLatin1Char('/') + name;
}

QString settingsFilePath()
{
    return xdgFolder(XdgFolder::Config) + QLatin1Char('/') + kFolder + QStringLiteral("/settings.ini");
}

} // namespace DataFolder

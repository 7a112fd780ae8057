#include "DataFolder.h"

#include "XdgFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {
const QString kFolder = QStringLiteral("Brava Recorder");
}

namespace DataFolder {

void makePrivate(const QString &path)
{
    if (QFileInfo::exists(path))
        return;
    QDir().mkpath(path);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString dataDir()
{
    const QString path = xdgFolder(XdgFolder::Data) + QLatin1Char('/') + kFolder;
    makePrivate(path);
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

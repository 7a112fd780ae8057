#include "TestHome.h"

#include "DataFolder.h"

#include <QDir>
#include <QFile>

TestHome::TestHome()
{
    Q_ASSERT(m_dir.isValid());
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_dir.path() + QStringLiteral("/config")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_dir.path() + QStringLiteral("/data")));
    useInfo(QString());
    DataFolder::dataDir(); // made at launch, as main() does
}

void TestHome::wipe()
{
    m_settings->removeAll();
    QDir(DataFolder::dataDir()).removeRecursively();
    DataFolder::dataDir();
}

void TestHome::useInfo(const QString &bravaServer, const QString &version, const QString &webBase)
{
    const QString path = m_dir.path() + QStringLiteral("/Info.ini");
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write("[General]\nCFBundleVersion=7\nBravaServer=" + bravaServer.toUtf8() + "\nCFBundleShortVersionString="
                + version.toUtf8() + "\nEventWebServiceURL=" + webBase.toUtf8() + "\n");
    f.close();
    m_info = BuildInfo::read(path);
    if (!m_settings)
        m_settings = std::make_unique<Settings>(DataFolder::settingsFilePath(), m_info);
    m_settings->reload();
}

QString TestHome::log() const
{
    QFile f(DataFolder::dataDir() + QStringLiteral("/log.txt"));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

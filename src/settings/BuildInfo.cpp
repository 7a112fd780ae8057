#include "BuildInfo.h"

#include "TextTools.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>
#include <QUrl>

BuildInfo::BuildInfo(const QString &path)
    : m_path(path)
    , m_version(QStringLiteral("1.0"))
    , m_identifier(QStringLiteral("com.vantorra.brava-recorder"))
{
}

BuildInfo BuildInfo::read(const QString &path)
{
    BuildInfo info(path);
    if (!QFileInfo::exists(path))
        return info;
    info.m_fromFile = true;
    QSettings ini(path, QSettings::IniFormat);
    const auto str = [&ini](const char *key) { return ini.value(QLatin1String(key)).toString(); };
    info.m_server = str("BravaServer");
    if (const QString v = str("CFBundleShortVersionString"); !v.isEmpty())
        info.m_version = v;
    info.m_build = str("CFBundleVersion");
    if (const QString id = str("CFBundleIdentifier"); !id.isEmpty())
        info.m_identifier = id;
    info.m_webBase = TextTools::trimSpacesAndTabs(str("EventWebServiceURL"));
    while (info.m_webBase.endsWith(QLatin1Char('/')))
        info.m_webBase.chop(1);
    info.m_packageManaged = str("PackageManaged") == QLatin1String("true");
    return info;
}

QString BuildInfo::besideExecutable()
{
    const QString dir = QCoreApplication::instance()
                            ? QCoreApplication::applicationDirPath()
                            : QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget().section(QLatin1Char('/'), 0, -2);
    return dir + QStringLiteral("/Info.ini");
}

QString BuildInfo::readKey(const QString &path, const QString &key)
{
    if (!QFileInfo::exists(path))
        return QString();
    QSettings ini(path, QSettings::IniFormat);
    return ini.value(key).toString();
}

QString BuildInfo::webServiceProblem() const
{
    if (m_webBase.isEmpty())
        return QString();
    const QUrl url(m_webBase, QUrl::StrictMode);
    if (url.isValid() && (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http")) && !url.host().isEmpty())
        return QString();
    constexpr int kShown = 80;
    return QStringLiteral("This copy of Brava Recorder was built with a wrong event web service address (“%1”): "
                          "ask the event's IT for a corrected build.")
        .arg(m_webBase.size() > kShown ? m_webBase.left(kShown) + QStringLiteral("…") : m_webBase);
}

bool BuildInfo::serverLocked() const
{
    return !TextTools::trimSpacesAndTabs(m_server).isEmpty();
}

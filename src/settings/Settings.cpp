#include "Settings.h"

#include "Announce.h"
#include "BravaLog.h"
#include "BuildInfo.h"
#include "DataFolder.h"
#include "Protocol.h"
#include "StrictInt.h"
#include "TextTools.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>

#include <limits>

namespace {

QString stringOf(QSettings &file, const char *key, const QString &fallback)
{
    const QVariant v = file.value(QLatin1String(key));
    return v.isValid() ? v.toString() : fallback;
}

int intOf(QSettings &file, const char *key)
{
    return parseStrictInt(stringOf(file, key, QString()), std::numeric_limits<int>::min(),
                          std::numeric_limits<int>::max())
        .value_or(0);
}

bool boolOf(QSettings &file, const char *key)
{
    const QVariant v = file.value(QLatin1String(key));
    if (!v.isValid())
        return false;
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    const QString text = v.toString().trimmed().toLower();
    return text == QLatin1String("true") || text == QLatin1String("1");
}

} // namespace

Settings::Settings(const QString &path, const BuildInfo &build, QObject *parent)
    : QObject(parent)
    , m_path(path)
    , m_build(build)
{
    DataFolder::makePrivate(QFileInfo(path).absolutePath());
    m_settle.setSingleShot(true);
    m_settle.setInterval(kSettleMs);
    connect(&m_settle, &QTimer::timeout, this, &Settings::reload);
    // The folder too: an editor that saves by replacing the file ends the watch on the old one.
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, &m_settle, qOverload<>(&QTimer::start));
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, &m_settle, qOverload<>(&QTimer::start));
    QSettings file(m_path, QSettings::IniFormat);
    m_v = read(file);
    watch();
}

Settings::~Settings() = default;

void Settings::watch()
{
    const QString folder = QFileInfo(m_path).absolutePath();
    if (!m_watcher.directories().contains(folder))
        m_watcher.addPath(folder);
    if (QFileInfo::exists(m_path) && !m_watcher.files().contains(m_path))
        m_watcher.addPath(m_path);
}

void Settings::refused(const char *key, const QString &value, const QString &why)
{
    const QString shown = value.size() > 40 ? value.left(40) + QStringLiteral("…") : value;
    m_refusals.log(QStringLiteral("settings: %1 \"%2\" %3; treated as unset").arg(QLatin1String(key), shown, why),
                   QLatin1String(key));
}

QString Settings::bounded(QSettings &file, const char *key, const QString &fallback, qsizetype limit)
{
    const QString value = stringOf(file, key, fallback);
    if (value.size() <= limit)
        return value;
    refused(key, value, QStringLiteral("is %1 characters long (at most %2)").arg(value.size()).arg(limit));
    return QString();
}

Settings::Values Settings::read(QSettings &file)
{
    ++m_reads;
    Values v;
    const QString id = stringOf(file, "agentID", QString());
    if (!id.isEmpty() && id != QLatin1String("0")) {
        const std::optional<int> parsed = parseStrictInt(id, 1, kMaxAgentID);
        if (!parsed)
            refused("agentID", id, QStringLiteral("is not a number from 1 to %1").arg(kMaxAgentID));
        v.agentID = parsed.value_or(0);
    }
    v.agentName = bounded(file, "agentName", QString(), kMaxNameLength);
    v.server = bounded(file, "server", m_build.defaultServer(), kMaxServerLength);
    v.setupDone = boolOf(file, "setupDone");
    v.wizardStep = intOf(file, "wizardStep");
    v.wizardFurthest = intOf(file, "wizardFurthest");
    v.micUID = stringOf(file, "micUID", QString());
    v.camUID = stringOf(file, "camUID", QString());
    v.uploadQuality = stringOf(file, "uploadQuality", QLatin1String(Protocol::Quality::full));
    v.saleWidgetFrame = bounded(file, "saleWidgetFrame", QString(), kMaxFrameLength);
    return v;
}

void Settings::take(const Values &v)
{
    const Values old = m_v;
    m_v = v;
    // Announced after every value is in place, so a listener reading another key sees the new one.
    announce(this, old.agentID, v.agentID, &Settings::agentIDChanged);
    announce(this, old.agentName, v.agentName, &Settings::agentNameChanged);
    announce(this, old.server, v.server, &Settings::serverChanged);
    announce(this, old.setupDone, v.setupDone, &Settings::setupDoneChanged);
    announce(this, old.wizardStep, v.wizardStep, &Settings::wizardStepChanged);
    announce(this, old.wizardFurthest, v.wizardFurthest, &Settings::wizardFurthestChanged);
    announce(this, old.micUID, v.micUID, &Settings::micUIDChanged);
    announce(this, old.camUID, v.camUID, &Settings::camUIDChanged);
    announce(this, old.uploadQuality, v.uploadQuality, &Settings::uploadQualityChanged);
    announce(this, old.saleWidgetFrame, v.saleWidgetFrame, &Settings::saleWidgetFrameChanged);
}

void Settings::reload()
{
    QSettings file(m_path, QSettings::IniFormat);
    take(read(file));
    watch();
}

void Settings::write(const char *key, const QVariant &value)
{
    QSettings file(m_path, QSettings::IniFormat);
    file.setValue(QLatin1String(key), value);
    file.sync();
    if (file.status() != QSettings::NoError)
        bravaLog(QStringLiteral("settings: %1 could not be written to %2").arg(QLatin1String(key), m_path));
    // The stored value is read back through the same checks as an outside edit.
    take(read(file));
    watch();
}

bool Settings::writeBounded(const char *key, const QString &text, qsizetype limit)
{
    const QString value = TextTools::trimSpacesAndTabs(text);
    if (value.size() > limit) {
        bravaLog(QStringLiteral("settings: %1 of %2 characters refused (at most %3)")
                     .arg(QLatin1String(key))
                     .arg(value.size())
                     .arg(limit));
        return false;
    }
    write(key, value);
    return true;
}

void Settings::setAgentID(int id) { write("agentID", id); }
bool Settings::setAgentName(const QString &name) { return writeBounded("agentName", name, kMaxNameLength); }
bool Settings::setServer(const QString &server) { return writeBounded("server", server, kMaxServerLength); }
void Settings::setSetupDone(bool done) { write("setupDone", done); }
void Settings::setWizardStep(int step) { write("wizardStep", step); }
void Settings::setWizardFurthest(int step) { write("wizardFurthest", step); }
void Settings::setMicUID(const QString &uid) { write("micUID", uid); }
void Settings::setCamUID(const QString &uid) { write("camUID", uid); }
void Settings::setUploadQuality(const QString &quality) { write("uploadQuality", quality); }
void Settings::setSaleWidgetFrame(const QString &frame) { write("saleWidgetFrame", frame); }

int Settings::videoBitrate(const QString &quality)
{
    if (quality == QLatin1String(Protocol::Quality::low))
        return 2000000;
    if (quality == QLatin1String(Protocol::Quality::med))
        return 4000000;
    return 8000000;
}

void Settings::removeAll()
{
    QSettings file(m_path, QSettings::IniFormat);
    file.clear();
    file.sync();
    take(read(file));
}

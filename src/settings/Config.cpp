#include "Config.h"

#include "BravaLog.h"
#include "StrictInt.h"
#include "XdgFolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QUrl>
#include <QCryptographicHash>
#include <QFile>
#include <QSaveFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QSettings>

#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <memory>
#include <optional>

namespace {

const QString kFolder = QStringLiteral("Brava Recorder");

QMutex &storeMutex()
{
    static QMutex m;
    return m;
}

// The settings object is made once, lazily, and reused. Every read syncs it first, which
// re-reads the file when someone else changed it (a person editing settings.ini, say).
QSettings &store()
{
    static std::unique_ptr<QSettings> s;
    if (!s)
        s = std::make_unique<QSettings>(Config::settingsFilePath(), QSettings::IniFormat);
    return *s;
}

QVariant readValue(const QString &key)
{
    QMutexLocker lock(&storeMutex());
    store().sync();
    return store().value(key);
}

void writeValue(const QString &key, const QVariant &value)
{
    QMutexLocker lock(&storeMutex());
    store().setValue(key, value);
    store().sync();
}

int readInt(const QString &key)
{
    return parseStrictInt(readValue(key).toString(), std::numeric_limits<int>::min(), std::numeric_limits<int>::max())
        .value_or(0);
}

bool readBool(const QString &key)
{
    const QVariant v = readValue(key);
    if (!v.isValid())
        return false;
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    const QString text = v.toString().trimmed().toLower();
    return text == QLatin1String("true") || text == QLatin1String("1");
}

QString readString(const QString &key, const QString &fallback)
{
    const QVariant v = readValue(key);
    return v.isValid() ? v.toString() : fallback;
}

// Logs a stored value that is refused, once per key and value: a hand-edited settings file read
// every second says so once, not every second.
void logRefused(const QString &key, const QString &value, const QString &why)
{
    static QMutex mutex;
    static QHash<QString, QString> logged;
    {
        QMutexLocker lock(&mutex);
        const auto it = logged.constFind(key);
        if (it != logged.cend() && *it == value)
            return;
        logged.insert(key, value);
    }
    const QString shown = value.size() > 40 ? value.left(40) + QStringLiteral("…") : value;
    bravaLog(QStringLiteral("settings: %1 \"%2\" %3; treated as unset").arg(key, shown, why));
}

// A stored text longer than `limit` characters counts as unset.
QString readBoundedString(const QString &key, const QString &fallback, qsizetype limit)
{
    const QString value = readString(key, fallback);
    if (value.size() <= limit)
        return value;
    logRefused(key, value, QStringLiteral("is %1 characters long (at most %2)").arg(value.size()).arg(limit));
    return QString();
}

// Stores a trimmed text unless it is longer than `limit` characters.
bool writeBoundedString(const QString &key, const QString &text, qsizetype limit)
{
    const QString value = Config::trimSpacesAndTabs(text);
    if (value.size() > limit) {
        bravaLog(QStringLiteral("settings: %1 of %2 characters refused (at most %3)").arg(key).arg(value.size()).arg(limit));
        return false;
    }
    writeValue(key, value);
    return true;
}

struct Info {
    QString server, version, build, identifier, webBase;
    bool packageManaged = false;
};

QMutex &infoMutex()
{
    static QMutex m;
    return m;
}
QString &infoOverride()
{
    static QString p;
    return p;
}
std::optional<Info> &infoCache()
{
    static std::optional<Info> c;
    return c;
}

Info info()
{
    QMutexLocker lock(&infoMutex());
    if (!infoCache()) {
        const QString path = Config::infoFilePath();
        QSettings ini(path, QSettings::IniFormat);
        const auto str = [&](const char *key) {
            const QVariant v = ini.value(QLatin1String(key));
            return v.isValid() ? v.toString() : QString();
        };
        Info i;
        i.server = str("BravaServer");
        i.version = str("CFBundleShortVersionString");
        if (i.version.isEmpty())
            i.version = QStringLiteral("1.0");
        i.build = str("CFBundleVersion");
        i.identifier = str("CFBundleIdentifier");
        if (i.identifier.isEmpty())
            i.identifier = QStringLiteral("com.vantorra.brava-recorder");
        i.webBase = Config::trimSpacesAndTabs(str("EventWebServiceURL"));
        while (i.webBase.endsWith(QLatin1Char('/')))
            i.webBase.chop(1);
        i.packageManaged = str("PackageManaged") == QLatin1String("true");
        infoCache() = i;
    }
    return *infoCache();
}

QString executableDir()
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    return QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget().section(QLatin1Char('/'), 0, -2);
}

} // namespace

namespace Config {

QString trimSpacesAndTabs(const QString &text)
{
    qsizetype b = 0, e = text.size();
    const auto blank = [](QChar c) { return c == QLatin1Char(' ') || c == QLatin1Char('\t'); };
    while (b < e && blank(text.at(b)))
        ++b;
    while (e > b && blank(text.at(e - 1)))
        --e;
    return text.mid(b, e - b);
}

int agentID()
{
    const QString key = QStringLiteral("agentID");
    const QString text = readValue(key).toString();
    if (text.isEmpty() || text == QLatin1String("0"))
        return 0;
    const std::optional<int> id = parseStrictInt(text, 1, kMaxAgentID);
    if (!id)
        logRefused(key, text, QStringLiteral("is not a number from 1 to %1").arg(kMaxAgentID));
    return id.value_or(0);
}
void setAgentID(int id) { writeValue(QStringLiteral("agentID"), id); }

QString agentName() { return readBoundedString(QStringLiteral("agentName"), QString(), kMaxNameLength); }
bool setAgentName(const QString &name) { return writeBoundedString(QStringLiteral("agentName"), name, kMaxNameLength); }

QString server() { return readBoundedString(QStringLiteral("server"), defaultServer(), kMaxServerLength); }
bool setServer(const QString &server) { return writeBoundedString(QStringLiteral("server"), server, kMaxServerLength); }

bool setupDone() { return readBool(QStringLiteral("setupDone")); }
void setSetupDone(bool done) { writeValue(QStringLiteral("setupDone"), done); }

int wizardStep() { return readInt(QStringLiteral("wizardStep")); }
void setWizardStep(int step) { writeValue(QStringLiteral("wizardStep"), step); }
int wizardFurthest() { return readInt(QStringLiteral("wizardFurthest")); }
void setWizardFurthest(int step) { writeValue(QStringLiteral("wizardFurthest"), step); }

QString micUID() { return readString(QStringLiteral("micUID"), QString()); }
void setMicUID(const QString &uid) { writeValue(QStringLiteral("micUID"), uid); }

QString camUID() { return readString(QStringLiteral("camUID"), QString()); }
void setCamUID(const QString &uid) { writeValue(QStringLiteral("camUID"), uid); }

QString uploadQuality() { return readString(QStringLiteral("uploadQuality"), QStringLiteral("full")); }
void setUploadQuality(const QString &quality) { writeValue(QStringLiteral("uploadQuality"), quality); }

int videoBitrate()
{
    const QString q = uploadQuality();
    if (q == QLatin1String("low"))
        return 2000000;
    if (q == QLatin1String("med"))
        return 4000000;
    return 8000000;
}

QString defaultServer() { return info().server; }
bool serverLocked() { return !trimSpacesAndTabs(defaultServer()).isEmpty(); }
QString version() { return info().version; }
QString buildNumber() { return info().build; }
QString bundleIdentifier() { return info().identifier; }
QString webServiceURL() { return info().webBase; }
bool packageManaged() { return info().packageManaged; }

QString infoFilePath()
{
    {
        const QString o = infoOverride();
        if (!o.isEmpty())
            return o;
    }
    return executableDir() + QStringLiteral("/Info.ini");
}

QString readInfoKey(const QString &path, const QString &key)
{
    if (!QFileInfo::exists(path))
        return QString();
    QSettings ini(path, QSettings::IniFormat);
    return ini.value(key).toString();
}

void overrideInfoFileForTesting(const QString &path)
{
    QMutexLocker lock(&infoMutex());
    infoOverride() = path;
    infoCache().reset();
}

QString settingsFilePath()
{
    return xdgFolder(XdgFolder::Config) + QLatin1Char('/') + kFolder + QStringLiteral("/settings.ini");
}

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

namespace {
// Encodes one character of a session for a folder name.
QString folderChar(QChar c, bool first)
{
    if (c == QLatin1Char('%') || c == QLatin1Char('/') || c.unicode() < 0x20 || c.unicode() == 0x7f)
        return QLatin1Char('%') + QStringLiteral("%1").arg(c.unicode(), 2, 16, QLatin1Char('0')).toUpper();
    if (c == QLatin1Char('.') && first)
        return QStringLiteral("%2E");
    return QString(c);
}

// A shortened name carries "%h" and a hash: never produced by the encoding itself.
constexpr int kPrefixBytes = 100;
const QString kHashMark = QStringLiteral("%h");

bool isShortened(const QString &folder)
{
    return folder.contains(kHashMark);
}
} // namespace

QString sessionFolder(const QString &session)
{
    if (session.isEmpty())
        return QStringLiteral("%");
    QString folder;
    folder.reserve(session.size());
    for (qsizetype i = 0; i < session.size(); ++i)
        folder += folderChar(session.at(i), i == 0);
    if (folder.toUtf8().size() <= kMaxFolderBytes)
        return folder;
    // Too long for one file name: a prefix cut at a whole character, then the hash of all of it.
    QString prefix;
    int bytes = 0;
    for (qsizetype i = 0; i < session.size(); ++i) {
        const bool pair = session.at(i).isHighSurrogate() && i + 1 < session.size();
        const QString piece = pair ? session.mid(i, 2) : folderChar(session.at(i), i == 0);
        bytes += int(piece.toUtf8().size());
        if (bytes > kPrefixBytes)
            break;
        prefix += piece;
        i += pair ? 1 : 0;
    }
    const QByteArray hash = QCryptographicHash::hash(session.toUtf8(), QCryptographicHash::Sha256).toHex().left(32);
    return prefix + kHashMark + QString::fromLatin1(hash);
}

QString sessionOfFolder(const QString &folderPath)
{
    const QString name = QFileInfo(folderPath).fileName();
    if (name == QLatin1String("%"))
        return QString();
    if (isShortened(name)) {
        QFile note(folderPath + QLatin1Char('/') + QLatin1String(kSessionNote));
        if (note.open(QIODevice::ReadOnly))
            return QString::fromUtf8(note.readAll());
        // The note is lost: the name's readable part is the best there is.
        return QUrl::fromPercentEncoding(name.left(name.indexOf(kHashMark)).toUtf8());
    }
    return QUrl::fromPercentEncoding(name.toUtf8());
}

QString makeSessionFolder(const QString &parent, const QString &session, QString *error)
{
    const QString name = sessionFolder(session);
    const QString path = parent + QLatin1Char('/') + name;
    QDir dir(path);
    if (!dir.exists() && !QDir().mkpath(path)) {
        // mkpath gives no reason; mkdir(2) does.
        const int rc = ::mkdir(QFile::encodeName(path).constData(), 0755);
        const int err = errno;
        if (rc != 0 && !(err == EEXIST && QFileInfo(path).isDir())) {
            if (error)
                *error = QString::fromLocal8Bit(std::strerror(err == EEXIST ? ENOTDIR : err));
            return QString();
        }
    }
    if (isShortened(name)) {
        // Written whole or not at all (a crash never leaves half a session behind).
        QSaveFile note(path + QLatin1Char('/') + QLatin1String(kSessionNote));
        if (!QFileInfo::exists(note.fileName())
            && (!note.open(QIODevice::WriteOnly) || note.write(session.toUtf8()) < 0 || !note.commit())) {
            if (error)
                *error = note.errorString();
            return QString();
        }
    }
    return path;
}

QString printable(const QString &text, int max)
{
    QString out;
    for (qsizetype i = 0; i < text.size() && out.size() < max; ++i) {
        const QChar c = text.at(i);
        if (c.category() == QChar::Other_Control || c == QChar::LineSeparator || c == QChar::ParagraphSeparator)
            out += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    if (out.size() >= max && text.size() > max)
        out += QStringLiteral("…");
    return out;
}

void removeAll()
{
    QMutexLocker lock(&storeMutex());
    store().clear();
    store().sync();
}

} // namespace Config

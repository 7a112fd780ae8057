#include "LoginItem.h"

#include "AppUpdates.h"
#include "BravaLog.h"
#include "XdgFolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSaveFile>

namespace LoginItem {

QString execQuoted(const QString &path)
{
    // The desktop entry rules, in their order: the argument in double quotes with \ " ` $ escaped
    // by a backslash and % doubled; then the string's own escapes, which double every backslash
    // (so a $ is written \\$) and spell out line breaks and tabs.
    QString arg;
    for (const QChar c : path) {
        if (c == u'\\' || c == u'"' || c == u'`' || c == u'$')
            arg += u'\\';
        else if (c == u'%')
            arg += u'%';
        arg += c;
    }
    QString out = QStringLiteral("\"");
    for (const QChar c : arg)
        out += c == u'\\' ? QStringLiteral("\\\\") : c == u'\n' ? QStringLiteral("\\n") : c == u'\t' ? QStringLiteral("\\t")
            : c == u'\r' ? QStringLiteral("\\r") : QString(c);
    return out + u'"';
}

QString entryPath()
{
    return xdgFolder(XdgFolder::Autostart) + QStringLiteral("/brava-recorder.desktop");
}

bool lastingPlace(const QString &exe)
{
    const auto real = [](const QString &path) -> QString { // a QString, not a builder of temporaries
        const QString canonical = QFileInfo(path).canonicalFilePath();
        return (canonical.isEmpty() ? QDir::cleanPath(QFileInfo(path).absoluteFilePath()) : canonical) + QLatin1Char('/');
    };
    const QString place = real(exe);
    for (const QString &passing : {QDir::tempPath(), AppUpdates::defaultWorkRoot()})
        if (const QString root = real(passing); !passing.isEmpty() && root != QLatin1String("/") && place.startsWith(root))
            return false;
    return true;
}

void registerCurrentUser(const QString &program)
{
    const QString exe = program.isEmpty() ? QCoreApplication::applicationFilePath() : program;
    if (exe.isEmpty())
        return;
    if (!lastingPlace(exe)) {
        bravaLog(QStringLiteral("start at login left as it is: this copy runs from a temporary folder or an update's work folder (") + exe + QLatin1Char(')'));
        return;
    }
    QDir().mkpath(QFileInfo(entryPath()).absolutePath());
    const QByteArray text = "[Desktop Entry]\n"
                            "Type=Application\n"
                            "Name=Brava Recorder\n"
                            "Comment=Records this computer's calls for the event's control room\n"
                            "Exec=" + execQuoted(exe).toUtf8() + "\n"
                            "Terminal=false\n"
                            "X-GNOME-Autostart-enabled=true\n";
    QFile existing(entryPath());
    if (existing.open(QIODevice::ReadOnly) && existing.readAll() == text)
        return;
    QSaveFile out(entryPath());
    if (out.open(QIODevice::WriteOnly)) {
        out.write(text);
        out.commit();
    }
}

void unregister()
{
    QFile::remove(entryPath());
}

} // namespace LoginItem

#include "LoginItem.h"

#include "XdgFolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSaveFile>

namespace LoginItem {

QString entryPath()
{
    return xdgFolder(XdgFolder::Autostart) + QStringLiteral("/brava-recorder.desktop");
}

void registerCurrentUser()
{
    const QString exe = QCoreApplication::applicationFilePath();
    if (exe.isEmpty())
        return;
    QDir().mkpath(QFileInfo(entryPath()).absolutePath());
    // Exec quoting per the desktop entry rules: the path in double quotes, with \ " ` $ escaped.
    QString quoted = exe;
    for (const char *c : {"\\", "\"", "`", "$"})
        quoted.replace(QLatin1String(c), QLatin1String("\\") + QLatin1String(c));
    const QByteArray text = "[Desktop Entry]\n"
                            "Type=Application\n"
                            "Name=Brava Recorder\n"
                            "Comment=Records this computer's calls for the event's control room\n"
                            "Exec=\"" + quoted.toUtf8() + "\"\n"
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

#include "FolderReveal.h"

#include "BravaLog.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFileInfo>
#include <QProcess>
#include <QUrl>

namespace FolderReveal {

namespace {

// The opener's exit status is its verdict (xdg-open exits non-zero when it found no way to open the
// folder); one that keeps running has handed the folder to a program that shows it.
void openFolder(const QString &path, std::function<void()> failed, const QString &opener)
{
    const QString folder = QFileInfo(path).isDir() ? path : QFileInfo(path).absolutePath();
    auto *process = new QProcess;
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    const auto fail = [process, folder, opener, failed](const QString &why) {
        bravaLog(QStringLiteral("cannot show the folder ") + folder + QStringLiteral(" (") + opener + QStringLiteral(": ") + why + QLatin1Char(')'));
        if (failed)
            failed();
        process->deleteLater();
    };
    QObject::connect(process, &QProcess::errorOccurred, process, [process, fail](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            fail(process->errorString());
    });
    // Only the end of what it says is kept, for the log.
    auto tail = std::make_shared<QByteArray>();
    QObject::connect(process, &QProcess::readyReadStandardOutput, process, [process, tail] {
        tail->append(process->readAll());
        *tail = tail->right(300);
    });
    QObject::connect(process, &QProcess::finished, process, [process, fail, tail](int code, QProcess::ExitStatus status) {
        if (status == QProcess::NormalExit && code == 0)
            return process->deleteLater();
        const QString said = QString::fromUtf8(QByteArray(*tail).append(process->readAll())).trimmed().section(QLatin1Char('\n'), -1).right(200);
        fail(QStringLiteral("exit %1").arg(code) + (said.isEmpty() ? QString() : QStringLiteral(", ") + said));
    });
    process->start(opener, {folder});
}

} // namespace

void show(const QString &path, std::function<void()> failed, const QString &opener)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openFolder(path, std::move(failed), opener);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kTimeoutMs));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, path, failed, opener] {
        if (watcher->isError())
            openFolder(path, failed, opener);
        watcher->deleteLater();
    });
}

} // namespace FolderReveal

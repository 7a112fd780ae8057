#include "Uninstaller.h"

#include "AlertBox.h"
#include "BravaLog.h"
#include "ReleaseManifest.h"
#include "Trash.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <sys/stat.h>
#include <unistd.h>

Uninstaller::Uninstaller(Paths paths, QObject *parent)
    : QObject(parent)
    , m_paths(std::move(paths))
{
    ask = [](const Alert &alert, std::function<void(int)> answer) { AlertBox::show(alert, std::move(answer)); };
    quit = [] { QCoreApplication::quit(); };
}

Uninstaller::AppRemoval Uninstaller::removalOf(const QString &folder, bool packageManaged)
{
    struct stat st;
    if (packageManaged || ::stat(QFile::encodeName(folder).constData(), &st) != 0 || st.st_uid != ::geteuid())
        return AppRemoval::Package;
    // Only a folder that is plainly an unpacked release, inside the home folder, goes to the Trash:
    // never a shared folder of programs or a build tree.
    const QString home = QDir(QDir::homePath()).canonicalPath();
    const QString canonical = QDir(folder).canonicalPath();
    if (home.isEmpty() || home == QLatin1String("/") || !canonical.startsWith(home + QLatin1Char('/'))
        || !QFileInfo::exists(folder + QLatin1Char('/') + QLatin1String(ReleaseManifest::kFileName)))
        return AppRemoval::ByHand;
    return AppRemoval::Trash;
}

Alert Uninstaller::confirmation(int pending, AppRemoval removal, const QString &appFolder)
{
    Alert a;
    a.message = QStringLiteral("Uninstall Brava Recorder?");
    // With a package the program itself stays until the package is removed: the first sentence
    // names only what goes now.
    if (pending == 0 && removal == AppRemoval::Package)
        a.informative = QStringLiteral("This removes Brava Recorder's settings and recordings from this computer. "
                                       "Recordings already sent to the control room aren't affected.");
    else if (pending == 0)
        a.informative = QStringLiteral("This removes Brava Recorder and its settings from this computer. Recordings "
                                       "already sent to the control room aren't affected.");
    else
        a.informative = QString::number(pending)
            + QStringLiteral(" recording file(s) haven't uploaded to the control room yet. Connect to the event Wi-Fi "
                             "and wait for them to finish, or they'll be lost.");
    if (removal == AppRemoval::Package)
        a.informative += QStringLiteral("\n\nThe program itself stays installed with the system's packages, but no longer "
                                        "starts at login for you; removing the brava-recorder package needs an administrator.");
    else if (removal == AppRemoval::ByHand)
        a.informative += QStringLiteral("\n\nThe program's folder stays where it is: ") + appFolder;
    a.critical = pending > 0;
    a.defaultButton = pending > 0 ? 1 : 0; // Enter keeps the recordings
    a.buttons = {pending > 0 ? QStringLiteral("Uninstall Anyway") : QStringLiteral("Uninstall"), QStringLiteral("Cancel")};
    return a;
}

// The pieces of a running take (and of one cut short) are in writing/<session>/ until they are
// finished and handed to the upload queue; a session folder's notes (".session") are no recording.
int Uninstaller::piecesBeingWritten() const
{
    int pieces = 0;
    for (QDirIterator it(m_paths.dataFolder + QStringLiteral("/writing"), QDir::Files, QDirIterator::Subdirectories); it.hasNext(); it.next())
        ++pieces;
    return pieces;
}

void Uninstaller::start()
{
    if (m_running)
        return;
    const Alert question = confirmation(pendingCount() + piecesBeingWritten(), removalOf(m_paths.appFolder, m_paths.packageManaged),
                                        m_paths.appFolder);
    m_running = true;
    ask(question, [this](int button) {
        if (button != 0) {
            m_running = false;
            return;
        }
        stopRecorder([this] { remove(); });
    });
}

void Uninstaller::hideAtLogin(const QString &entry)
{
    QDir().mkpath(QFileInfo(entry).path());
    QSaveFile out(entry);
    if (out.open(QIODevice::WriteOnly)) {
        out.write("[Desktop Entry]\nType=Application\nName=Brava Recorder\nHidden=true\n");
        out.commit();
    }
}

void Uninstaller::remove()
{
    bravaLog(QStringLiteral("uninstall: removing settings, start at login and the data folder"));
    if (beforeRemoving)
        beforeRemoving();
    QFile::remove(m_paths.settingsFile);
    QDir().rmdir(QFileInfo(m_paths.settingsFile).path()); // only when empty
    // This user's own entry goes. A package's entry for every user goes with the package (and a
    // desktop skips it once the program is gone: TryExec); until then this user's hidden copy of it
    // keeps the agent from starting at their login.
    const AppRemoval removal = removalOf(m_paths.appFolder, m_paths.packageManaged);
    if (removal == AppRemoval::Package)
        hideAtLogin(m_paths.autostartEntry);
    else
        QFile::remove(m_paths.autostartEntry);
    // Failures to reach the Trash do not stop the uninstall; nothing is deleted outright, and the
    // person is told what is left before the agent goes.
    QStringList left;
    for (const QString &folder : {removal == AppRemoval::Trash ? m_paths.appFolder : QString(), m_paths.dataFolder})
        if (QString why; !folder.isEmpty() && QFileInfo::exists(folder) && !Trash::move(folder, &why)) {
            bravaLog(QStringLiteral("uninstall: cannot move to the Trash, left in place: ") + folder + QStringLiteral(" (") + why + QLatin1Char(')'));
            left.append(folder);
        }
    const auto finish = [this] {
        Q_EMIT removed();
        if (quit)
            quit();
    };
    if (left.isEmpty())
        return finish();
    Alert a;
    a.message = QStringLiteral("Some of Brava Recorder could not be moved to the Trash");
    a.informative = QStringLiteral("Remove by hand what is left:\n") + left.join(QLatin1Char('\n'));
    ask(a, [finish](int) { finish(); });
}

#pragma once

#include "Alert.h"

#include <QObject>
#include <QString>

#include <functional>

// Removes the agent from this computer after asking: stops the recorder, then moves the
// program's folder (only an unpacked release in a folder this user owns under the home folder; a
// package-managed install is left to the package manager and the alert says so) and the data
// folder to the freedesktop Trash, removes the settings file and this user's autostart entry (with
// a package, whose entry for every user stays until the package goes, this user's entry becomes a
// hidden copy of it instead, so the agent no longer starts at their login), and quits.
// Recordings not uploaded yet (pending uploads and the pieces of a running take in writing/) are
// counted in the alert, whose button then reads "Uninstall Anyway".
class Uninstaller : public QObject
{
    Q_OBJECT
public:
    struct Paths
    {
        QString appFolder;      ///< the folder of the running executable
        QString dataFolder;
        QString settingsFile;
        QString autostartEntry;
        bool packageManaged = false; ///< installed by the system's package manager
    };
    /// How the program itself is removed.
    enum class AppRemoval { Trash, Package, ByHand };

    explicit Uninstaller(Paths paths, QObject *parent = nullptr);

    /// The number of recording files waiting in the upload queue.
    std::function<int()> pendingCount = [] { return 0; };
    /// Stops the recorder and calls back once it has stopped.
    std::function<void(std::function<void()>)> stopRecorder = [](std::function<void()> done) { done(); };
    /// Runs right before anything is removed (stop timers and uploads, so nothing writes again).
    std::function<void()> beforeRemoving;
    /// Shows an alert (AlertBox::show unless replaced).
    AskFunction ask;
    /// Ends the program.
    std::function<void()> quit;

    /// Asks, and when confirmed removes everything and quits; returns at once.
    void start();
    /// The question for this many pending files and this way of removing the program.
    static Alert confirmation(int pending, AppRemoval removal, const QString &appFolder);
    /// How the program in `folder` can be removed by this user.
    static AppRemoval removalOf(const QString &folder, bool packageManaged = false);

Q_SIGNALS:
    /// Everything has been removed (just before quit).
    void removed();

private:
    void remove();
    int piecesBeingWritten() const;
    static void hideAtLogin(const QString &entry);

    Paths m_paths;
    bool m_running = false;
};

#pragma once

#include <QList>
#include <QString>

// Recovers the segment files a crash left in writing/<session>/: keeps what holds media, trims a
// piece cut inside a fragment, sets aside what holds none, and marks the last kept piece of a
// take that never got its "_final" piece as final, so the control room learns the take ended.
// Runs only while this agent holds the data folder's lock, before its first take.
class OrphanRecovery
{
public:
    /// One recovered file ready for the upload queue and the session it belongs to.
    struct Found {
        QString path;
        QString session;
    };

    /// Recovery of `writingDir`, setting files aside in `unrecognizedDir`.
    OrphanRecovery(QString writingDir, QString unrecognizedDir);

    /// Salvages every session folder and returns the files to queue, in name order per folder.
    QList<Found> run() const;

    /// Moves `path` into the set-aside folder under a name not taken yet; false when it fails.
    static bool setAside(const QString &path, const QString &unrecognizedDir);

private:
    QList<Found> runFolder(const QString &folder, const QString &session) const;

    const QString m_writing;
    const QString m_unrecognized;
};

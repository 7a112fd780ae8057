#pragma once

#include <QString>
#include <QTemporaryDir>

// A throw-away home for one test program: XDG_CONFIG_HOME and XDG_DATA_HOME point into a
// temporary folder, so settings, log and data folder never touch the real user's files.
// Create it before the first use of Config.
class TestHome
{
public:
    TestHome();
    /// The temporary root.
    QString root() const { return m_dir.path(); }
    /// Removes every setting and the whole data folder.
    void wipe();
    /// Writes an Info.ini with the given fixed server and makes Config read it.
    void useInfo(const QString &bravaServer, const QString &version = QStringLiteral("2.5"),
                 const QString &webBase = QString());
    /// Contents of log.txt ("" when absent).
    QString log() const;

private:
    QTemporaryDir m_dir;
};

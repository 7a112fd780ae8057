#pragma once

#include "BuildInfo.h"
#include "Settings.h"

#include <QString>
#include <QTemporaryDir>

#include <memory>

// A throw-away home for one test program: XDG_CONFIG_HOME and XDG_DATA_HOME point into a
// temporary folder, so settings, log and data folder never touch the real user's files. Holds the
// build information (its own Info.ini) and the Settings object that main() would make.
class TestHome
{
public:
    TestHome();
    /// The temporary root.
    QString root() const { return m_dir.path(); }
    /// Removes every setting and the whole data folder.
    void wipe();
    /// Writes an Info.ini with the given fixed server, reads it into info() and has settings()
    /// read the file again with it.
    void useInfo(const QString &bravaServer, const QString &version = QStringLiteral("2.5"),
                 const QString &webBase = QString());
    /// The build information read by the last useInfo().
    const BuildInfo &info() const { return m_info; }
    /// The settings, on the settings file of this home.
    Settings &settings() { return *m_settings; }
    /// Contents of log.txt ("" when absent).
    QString log() const;

private:
    QTemporaryDir m_dir;
    BuildInfo m_info;
    std::unique_ptr<Settings> m_settings;
};

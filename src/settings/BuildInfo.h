#pragma once

#include <QString>

// What this build was packaged with, from the Info.ini beside the executable: read once in main()
// (tests read their own file) and handed to the parts that need it. A plain value; any thread.
class BuildInfo
{
public:
    /// A build with nothing set: unlocked, version "1.0", no build number, no web service.
    BuildInfo() : BuildInfo(QString()) {}
    /// Reads the Info.ini at `path` now; a missing file or key leaves its default.
    static BuildInfo read(const QString &path);
    /// Path of the Info.ini beside the running executable.
    static QString besideExecutable();
    /// Reads one key of an Info.ini file on disk now, "" when the file or key is missing.
    static QString readKey(const QString &path, const QString &key);

    /// The Info.ini this was read from ("" for the defaults).
    QString path() const { return m_path; }
    /// True when the file at path() existed when it was read.
    bool fromFile() const { return m_fromFile; }
    /// The fixed control-room address of this build ("BravaServer"), "" when none.
    QString defaultServer() const { return m_server; }
    /// True when this build fixes the control-room address.
    bool serverLocked() const;
    /// The marketing version ("CFBundleShortVersionString"), "1.0" when missing.
    QString version() const { return m_version; }
    /// The build number ("CFBundleVersion"), "" when missing.
    QString buildNumber() const { return m_build; }
    /// The application identifier ("CFBundleIdentifier"), a fixed fallback when missing.
    QString bundleIdentifier() const { return m_identifier; }
    /// Base URL of the event web service without a trailing slash, "" when this build has none.
    QString webServiceURL() const { return m_webBase; }
    /// What is wrong with the event web service address in words, "" when it is a usable http(s)
    /// address or there is none.
    QString webServiceProblem() const;
    /// True when a package manager installed this copy ("PackageManaged=true"): the package then
    /// provides the start at login for every user, so the agent writes no autostart entry itself.
    bool packageManaged() const { return m_packageManaged; }

private:
    explicit BuildInfo(const QString &path);

    QString m_path;
    QString m_server;
    QString m_version;
    QString m_build;
    QString m_identifier;
    QString m_webBase;
    bool m_packageManaged = false;
    bool m_fromFile = false;
};

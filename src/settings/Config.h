#pragma once

#include <QString>

// The agent's one settings store. Every user setting lives in the per-user INI file
// $XDG_CONFIG_HOME/Brava Recorder/settings.ini and is read from the store on every access, so a
// value written anywhere is seen at once everywhere. Build information comes from Info.ini beside
// the executable; the data folder is $XDG_DATA_HOME/Brava Recorder. Safe to use from any thread.
namespace Config {

/// Largest agent number; a stored number outside 1…kMaxAgentID counts as none.
constexpr int kMaxAgentID = 2147483647;
/// Longest agent name, in characters.
constexpr int kMaxNameLength = 100;
/// Longest control-room address, in characters.
constexpr int kMaxServerLength = 255;

/// The agent number; 0 when none is stored or the stored one is not a number in 1…kMaxAgentID
/// (which is logged once).
int agentID();
/// Stores the agent number as given.
void setAgentID(int id);

/// The agent's name; "" when the stored one is longer than kMaxNameLength (logged once).
QString agentName();
/// Stores the name without leading or trailing spaces and tabs; refuses (false, logged) one longer
/// than kMaxNameLength.
bool setAgentName(const QString &name);

/// The control-room address host:port; defaultServer() when nothing is stored, "" when the stored
/// one is longer than kMaxServerLength (logged once).
QString server();
/// Stores the address without leading or trailing spaces and tabs; refuses (false, logged) one
/// longer than kMaxServerLength.
bool setServer(const QString &server);

/// Whether the setup wizard has been completed.
bool setupDone();
/// Stores the setup-done flag.
void setSetupDone(bool done);

/// The wizard step to reopen at.
int wizardStep();
/// Stores the wizard step.
void setWizardStep(int step);
/// The furthest wizard step reached (the limit for jumping forward).
int wizardFurthest();
/// Stores the furthest wizard step reached.
void setWizardFurthest(int step);

/// Unique ID of the chosen microphone; empty means the system default.
QString micUID();
/// Stores the microphone choice.
void setMicUID(const QString &uid);

/// Unique ID of the chosen camera; empty means the default camera.
QString camUID();
/// Stores the camera choice.
void setCamUID(const QString &uid);

/// Upload quality word ("low", "med", "full"); "full" when absent.
QString uploadQuality();
/// Stores the upload quality word as given.
void setUploadQuality(const QString &quality);

/// Video bit rate in bits per second derived from uploadQuality() (exact, case-sensitive words).
int videoBitrate();

/// The fixed control-room address of this build ("BravaServer" in Info.ini), "" when none.
QString defaultServer();
/// True when this build fixes the control-room address.
bool serverLocked();
/// The marketing version ("CFBundleShortVersionString"), "1.0" when missing.
QString version();
/// The build number ("CFBundleVersion"), "" when missing.
QString buildNumber();
/// The application identifier ("CFBundleIdentifier"), a fixed fallback when missing.
QString bundleIdentifier();
/// Base URL of the event web service without a trailing slash, "" when this build has none.
QString webServiceURL();
/// True when a package manager installed this copy ("PackageManaged=true" in Info.ini): the package
/// then provides the start at login for every user, so the agent writes no autostart entry itself.
bool packageManaged();

/// Path of the Info.ini this process reads (beside the executable).
QString infoFilePath();
/// Reads one key of an Info.ini file on disk now, "" when the file or key is missing.
QString readInfoKey(const QString &path, const QString &key);

/// The data folder, created (with parents) on every call; creation failures are ignored.
QString dataDir();
/// A sub-folder of the data folder, created on every call; creation failures are ignored.
QString dir(const QString &name);
/// The folder name under writing/ and pending/ that stands for a recording session: the session
/// itself, with "%", "/", NUL and other control characters written as %XX, a leading "." as %2E,
/// and "%" alone for the empty session. Any text the control room sends stays one folder inside the
/// data folder. A name longer than a file name may be (kMaxFolderBytes) is shortened to a cut
/// prefix, "%h" and a hash of the whole session; the full text is then kept in the folder's
/// kSessionNote file (makeSessionFolder writes it).
QString sessionFolder(const QString &session);
/// The session the folder at `folderPath` (a path, or a bare folder name) stands for: read from
/// its kSessionNote for a shortened name, decoded from the name otherwise (the reverse of
/// sessionFolder).
QString sessionOfFolder(const QString &folderPath);
/// Creates `parent`/sessionFolder(session) with its kSessionNote when the name is shortened;
/// returns the folder's path, or "" with the reason in `error`.
QString makeSessionFolder(const QString &parent, const QString &session, QString *error = nullptr);
/// Longest folder name in UTF-8 bytes that sessionFolder writes unshortened.
constexpr int kMaxFolderBytes = 255;
/// Hidden file beside the segments of a shortened session folder, holding the session in UTF-8.
constexpr const char *kSessionNote = ".session";
/// `text` for a log line: control characters as \xNN (newlines too), at most `max` characters.
QString printable(const QString &text, int max = 200);
/// Path of the settings file.
QString settingsFilePath();

/// Removes every stored setting (used by uninstall).
void removeAll();

/// Trims leading and trailing spaces and tabs (not newlines).
QString trimSpacesAndTabs(const QString &text);

/// Tests only: read build information from this file instead (an empty path restores the default).
void overrideInfoFileForTesting(const QString &path);

} // namespace Config

#pragma once

#include <QString>
#include <QUrl>

// The rules an update must pass before anything is downloaded: version order, the download URL
// policy and the digest's form. Pure functions.
namespace UpdatePolicy {

/// The archive name of a release: "Brava Recorder-<version>-linux.zip".
QString archiveName(const QString &version);
/// True when `a` orders after `b` comparing text with digit runs compared as numbers (1.10 after
/// 1.9); equal versions are not newer.
bool newer(const QString &a, const QString &b);
/// True only for https on exactly `host`, no explicit port, no user or password, a path under
/// "/wp-content/uploads/" that ends in ".zip",
/// without "." or ".." segments.
bool allowed(const QUrl &url, const QString &host);
/// True for exactly 64 lower-case hexadecimal digits.
bool digestWellFormed(const QString &sha256);
/// True for 1 to 32 of the characters a release's version is made of: letters, digits, ". _ + -"
/// (it names the archive and is shown in alerts).
bool versionWellFormed(const QString &version);

} // namespace UpdatePolicy

#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>

// The signed list of a release folder's contents, written by scripts/sign-release as the folder's
// kFileName, with its Ed25519 signature in kSignatureName. Text, UTF-8, one line each:
//
//   brava-release-manifest 1
//   identifier=<CFBundleIdentifier>
//   version=<CFBundleShortVersionString>
//   file<TAB><sha256><TAB><size><TAB><octal mode><TAB><path>
//   link<TAB><target><TAB><path>
//
// Paths are relative to the folder; the manifest and its signature are not listed.
class ReleaseManifest
{
public:
    struct Item
    {
        bool link = false;
        QString sha256; ///< files
        qint64 size = 0;
        unsigned mode = 0;
        QString target; ///< links
    };

    static constexpr const char *kFileName = "RELEASE-MANIFEST";
    static constexpr const char *kSignatureName = "RELEASE-MANIFEST.sig";
    /// Largest manifest read.
    static constexpr qint64 kMaxBytes = 4 << 20;

    /// Reads a manifest; nullopt with the reason in `error` when any line is malformed.
    static std::optional<ReleaseManifest> parse(const QByteArray &text, QString *error);
    /// True when `signature` is a valid Ed25519 signature of `text` by the PEM public key.
    static bool verifySignature(const QByteArray &text, const QByteArray &signature, const QByteArray &publicKeyPem,
                                QString *error);

    QString identifier;
    QString version;
    QHash<QString, Item> items; ///< by path
};

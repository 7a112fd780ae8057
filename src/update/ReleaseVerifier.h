#pragma once

#include "ArchiveUnpacker.h"

#include <QByteArray>
#include <QString>

// Proves a downloaded release archive (already checked against the feed's digest) to be a build of
// this agent, signed by the publisher, in the expected version, in this order:
//   1. unpack into <work>/unpacking (ArchiveUnpacker): a refusal is "Signature validation failed";
//   2. the folder kAppFolder must be there, and nothing beside it: "Download integrity check failed";
//   3. the manifest's Ed25519 signature, the identifier, and the manifest covering every file and
//      link of the folder and nothing else (digest, size, mode, target): "Signature validation failed";
//   4. the assessment: the executable is an ELF for this machine's architecture, no entry is
//      set-uid or set-gid, no link leaves the folder: "Signature validation failed";
//   5. the version in the manifest and in the folder's Info.ini equal the release's:
//      "Update version mismatch";
//   6. only then is <work>/unpacking renamed <work>/verified.
// Blocking; run it off the main thread.
class ReleaseVerifier
{
public:
    struct Input
    {
        QString archive;
        QString workFolder;
        QString version;    ///< the release's version text
        QString identifier; ///< this agent's CFBundleIdentifier
        QByteArray publicKeyPem;
        ArchiveUnpacker::Limits limits;
    };
    struct Result
    {
        bool ok = false;
        QString error;     ///< internal error text (one of those above)
        QString detail;    ///< what exactly failed, for the log
        QString appFolder; ///< the verified folder when ok
    };

    static constexpr const char *kAppFolder = "Brava Recorder";
    static constexpr const char *kExecutable = "brava-recorder";

    /// Runs the steps above.
    static Result verify(const Input &input);
    /// True when the file starts with an ELF header for the architecture this program was built for.
    static bool isNativeElf(const QString &path);
};

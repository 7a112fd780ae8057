#pragma once

#include "Alert.h"

// The updater's alerts, word for word.
namespace UpdateAlerts {

/// Manual check: nothing newer than the running version.
Alert upToDate(const QString &runningVersion);
/// Manual check: a newer release, but the agent is busy.
Alert availableButBusy(const QString &version);
/// Manual check: the check failed (the internal reason is never shown).
Alert checkFailed();
/// The offer of a newer release: "Download Update" or "Later".
Alert offer(const QString &version);
/// The verified release with the instructions and its folder: "Show Verified App" or "Later".
Alert verified(const QString &installedFolder, const QString &verifiedFolder, bool packageManaged);
/// Neither the file manager nor the desktop's opener showed the verified folder.
Alert notShown(const QString &verifiedFolder);
/// Verified, but recording or uploads have started.
Alert verifiedButBusy();
/// The download or its verification failed.
Alert notOpened();

} // namespace UpdateAlerts

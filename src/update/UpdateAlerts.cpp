#include "UpdateAlerts.h"

namespace UpdateAlerts {

Alert upToDate(const QString &runningVersion)
{
    return {QStringLiteral("You’re up to date"),
            QStringLiteral("Brava Recorder ") + runningVersion + QStringLiteral(" is the latest published Linux release.")};
}

Alert availableButBusy(const QString &version)
{
    return {QStringLiteral("Update available"),
            QStringLiteral("Version ") + version
                + QStringLiteral(" is ready. Finish recording, calls, and uploads first. We’ll remind you when it’s safe.")};
}

Alert checkFailed()
{
    return {QStringLiteral("Couldn’t check for updates"),
            QStringLiteral("Your recorder will keep working. Try again when you have internet access.")};
}

Alert offer(const QString &version)
{
    return {QStringLiteral("Brava Recorder ") + version + QStringLiteral(" is available"),
            QStringLiteral("Download and verify the update now? Your agent number and settings are kept. "
                           "Installation is prompted; nothing restarts automatically."),
            {QStringLiteral("Download Update"), QStringLiteral("Later")}};
}

Alert verified(const QString &installedFolder, const QString &verifiedFolder, bool packageManaged)
{
    // A package's folder belongs to the package manager: the new version comes as a package, or
    // runs from the verified folder. The verified folder is named whatever the file manager does.
    const QString how = packageManaged
        ? QStringLiteral("This copy was installed with the system's packages (") + installedFolder
            + QStringLiteral("): install the brava-recorder package of the new version, or quit Brava Recorder and "
                             "start the verified one from the folder shown in the file manager.")
        : QStringLiteral("Quit Brava Recorder, then replace the installed Brava Recorder folder (") + installedFolder
            + QStringLiteral(") with the verified one shown in the file manager. Open it again.");
    return {QStringLiteral("Update verified"),
            how + QStringLiteral(" Your agent number and settings stay saved.\n\nThe verified folder: ") + verifiedFolder,
            {QStringLiteral("Show Verified App"), QStringLiteral("Later")}};
}

Alert notShown(const QString &verifiedFolder)
{
    return {QStringLiteral("Couldn’t show the verified folder"),
            QStringLiteral("No file manager on this computer opened it (the log says why). Open it yourself: ") + verifiedFolder};
}

Alert verifiedButBusy()
{
    return {QStringLiteral("Update verified"),
            QStringLiteral("The update is ready, but recording or uploads have started. Use Check for Updates when "
                           "they finish.")};
}

Alert notOpened()
{
    return {QStringLiteral("Update wasn’t opened"),
            QStringLiteral("The download or its signature could not be verified. Your installed app is unchanged. "
                           "Try Check for Updates again later.")};
}

} // namespace UpdateAlerts

#include "Maintenance.h"

#include "BravaLog.h"
#include "UpdateKey.h"

Maintenance::Maintenance(Parts parts, AppUpdates::Options build, Uninstaller::Paths paths, QObject *parent)
    : QObject(parent)
    , m_updates(parts.net, [&build] {
        if (build.publicKeyPem.isEmpty())
            build.publicKeyPem = QByteArray(UpdateKey::pem);
        return build;
    }())
    , m_uninstaller(std::move(paths))
{
    m_updates.isBusy = parts.busy;
    m_uninstaller.pendingCount = std::move(parts.pendingCount);
    m_uninstaller.stopRecorder = std::move(parts.stopRecorder);
    m_uninstaller.beforeRemoving = std::move(parts.beforeRemoving);
}

void Maintenance::launch()
{
    if (UpdateKey::isTestKey)
        bravaLog(QStringLiteral("update key: this build accepts releases signed with the repository's TEST key"));
    m_updates.check(false);
}

QString Maintenance::menuVersion(const QString &version)
{
    return version + (UpdateKey::isTestKey ? QStringLiteral(" (test key)") : QString());
}

#pragma once

#include <QLockFile>
#include <QString>

// One agent per user account and data folder. The lock is a file in the data folder, taken
// before anything touches writing/ or pending/ and held until the process ends; the system
// releases it when the process dies, so a crash never leaves the next launch locked out.
class InstanceLock
{
public:
    /// The lock of the agent whose data folder is `dataDir`.
    explicit InstanceLock(const QString &dataDir);

    /// Takes the lock without waiting; false when another live process holds it.
    bool tryLock();
    /// The process that holds the lock, for the log ("" when unknown).
    QString holder() const;

private:
    QLockFile m_file;
};

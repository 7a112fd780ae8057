#include "Uploader.h"

#include "BravaLog.h"
#include "DataFolder.h"
#include "Protocol.h"
#include "SessionFolder.h"
#include "Settings.h"
#include "OrphanRecovery.h"
#include "QueryString.h"
#include "SegmentName.h"
#include "SegmentPost.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QThread>
#include <QTimer>
#include <QUrl>

#include <algorithm>

namespace {

// Every entry of a folder except "." and "..", hidden ones included, in name order.
QFileInfoList entries(const QString &dir)
{
    return QDir(dir).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                   QDir::Name);
}

bool isHidden(const QFileInfo &info)
{
    return info.fileName().startsWith(QLatin1Char('.'));
}

} // namespace

Uploader::Uploader(const Settings &settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
{
}

Uploader::~Uploader() = default;

void Uploader::start()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (m_timer)
        return; // already running: orphans are only recovered before the first take
    recoverOrphans();
    m_timer = new QTimer(this);
    m_timer->setInterval(tickIntervalMs);
    connect(m_timer, &QTimer::timeout, this, &Uploader::tick);
    m_timer->start();
    tick();
}

void Uploader::enqueue(const QString &file, const QString &session)
{
    // A session too long for a folder name gets a shortened one, with the full text kept inside.
    QString folder = SessionFolder::make(DataFolder::dir(QStringLiteral("pending")), session);
    if (folder.isEmpty())
        folder = DataFolder::dir(QStringLiteral("pending")) + QLatin1Char('/') + SessionFolder::name(session);
    // A move that fails leaves the file where it was; from writing/ the next launch recovers it.
    QFile::rename(file, folder + QLatin1Char('/') + QFileInfo(file).fileName());
    QPointer<Uploader> self(this);
    QMetaObject::invokeMethod(this, [self] {
        if (self)
            self->tick();
    }, Qt::QueuedConnection);
}

QList<Uploader::PendingFile> Uploader::pendingFiles(const QString &pendingDir)
{
    QList<PendingFile> files;
    for (const QFileInfo &session : entries(pendingDir)) {
        if (isHidden(session) || !session.isDir())
            continue;
        for (const QFileInfo &file : entries(session.filePath()))
            if (SegmentName::isMedia(file.fileName()))
                files.append({file.filePath(), SessionFolder::sessionOf(session.filePath())});
    }
    std::stable_sort(files.begin(), files.end(), [](const PendingFile &a, const PendingFile &b) {
        return QFileInfo(a.path).fileName() < QFileInfo(b.path).fileName();
    });
    return files;
}

void Uploader::tick()
{
    Q_ASSERT(QThread::currentThread() == thread());
    const QList<PendingFile> files = pendingFiles(DataFolder::dir(QStringLiteral("pending")));
    m_pendingCount = int(files.size());
    if (m_busy || files.isEmpty())
        return;
    const PendingFile &first = files.first();
    if (!SegmentName::parse(QFileInfo(first.path).fileName())) {
        setAside(first);
        return;
    }
    upload(first);
}

void Uploader::setAside(const PendingFile &file)
{
    // A name already set aside earlier gets a number, so the odd file never blocks the queue.
    const QString name = QFileInfo(file.path).fileName();
    if (OrphanRecovery::setAside(file.path, DataFolder::dir(QStringLiteral("unrecognized"))))
        bravaLog(QStringLiteral("upload: ") + name + QStringLiteral(" is not a segment name; kept in unrecognized/"));
    else
        fail(Fault::SetAside, QStringLiteral("could not set aside ") + name);
}

void Uploader::upload(const PendingFile &file)
{
    const QString fileName = QFileInfo(file.path).fileName();
    const std::optional<SegmentName> name = SegmentName::parse(fileName);
    Q_ASSERT(name);
    const QUrl url = QueryString::at(QStringLiteral("http"), m_settings.server(), QLatin1String(Protocol::Path::upload),
                                     name->queryItems(m_settings.agentID(), file.session));
    if (!url.isValid()) {
        // No usable control-room address: the file waits until the setting is fixed.
        fail(Fault::NoAddress, QStringLiteral("no valid control-room address"));
        return;
    }

    // The body is read from the file as it is sent, never whole.
    auto *body = new QFile(file.path);
    if (!body->open(QIODevice::ReadOnly)) {
        fail(Fault::Unreadable, QStringLiteral("cannot read ") + fileName + QStringLiteral(": ") + body->errorString());
        delete body;
        return;
    }
    m_busy = true;
    auto *post = new SegmentPost(url, *body, requestTimeoutMs, this);
    body->setParent(post);
    const QString path = file.path;
    post->onDone = [this, post, path](const SegmentPost::Outcome &outcome) {
        post->deleteLater();
        finished(outcome, path);
    };
    post->start();
}

void Uploader::finished(const SegmentPost::Outcome &outcome, const QString &path)
{
    Q_ASSERT(m_busy);
    m_busy = false;
    if (outcome.status == 200) {
        m_lastError.clear();
        m_fault = Fault::None;
        QFile::remove(path);
        // Files arrive in pending/ only on this thread: an emptied session folder can go at once.
        SessionFolder::removeIfEmpty(QFileInfo(path).path());
        bravaLog(QStringLiteral("upload: ") + QFileInfo(path).fileName() + QStringLiteral(" done"));
        if (onUploaded)
            onUploaded(path);
        tick();
        return;
    }
    // Anything else leaves the file first in line for the next timer tick.
    const QString name = QFileInfo(path).fileName();
    if (outcome.status == 0)
        fail(Fault::Transport, QStringLiteral("upload of %1 failed: %2").arg(name, outcome.error));
    else
        fail(Fault::Refused, QStringLiteral("upload of %1 answered %2").arg(name).arg(outcome.status));
}

void Uploader::recoverOrphans()
{
    // Runs before the recorder has begun a take, under the data folder's lock, so every folder in
    // writing/ is left over from a run that ended.
    const QString writing = DataFolder::dir(QStringLiteral("writing"));
    const QList<OrphanRecovery::Found> found = OrphanRecovery(writing, DataFolder::dir(QStringLiteral("unrecognized"))).run();
    for (const OrphanRecovery::Found &file : found)
        enqueue(file.path, file.session);
    if (!found.isEmpty())
        bravaLog(QStringLiteral("recovery: %1 file(s) left by an earlier run queued for upload").arg(found.size()));
    for (const QFileInfo &folder : entries(writing)) {
        if (isHidden(folder) || !folder.isDir())
            continue;
        // Scraps go with their folder; a recording that could not be moved, or a folder this
        // program did not make, is never deleted: the next launch tries again.
        bool keep = false;
        for (const QFileInfo &entry : entries(folder.filePath()))
            keep = keep || entry.isDir() || SegmentName::isMedia(entry.fileName());
        if (!keep)
            QDir(folder.filePath()).removeRecursively();
        else
            bravaLog(QStringLiteral("upload: could not recover every file of writing/") + folder.fileName());
    }
}

void Uploader::fail(Fault fault, const QString &text)
{
    Q_ASSERT(fault != Fault::None);
    // The same fault again (a room that stays down) is logged once, when it first happens.
    if (fault != m_fault)
        bravaLog(QStringLiteral("upload: ") + text);
    m_fault = fault;
    m_lastError = text;
}

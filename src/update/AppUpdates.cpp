#include "AppUpdates.h"

#include "AlertBox.h"
#include "BravaLog.h"
#include "DataFolder.h"
#include "FolderReveal.h"
#include "ReleaseFeed.h"
#include "ReleaseVerifier.h"
#include "UpdateAlerts.h"
#include "UpdateDownload.h"
#include "UpdatePolicy.h"

#include <QCoreApplication>
#include <QDir>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QThread>
#include <QUuid>

#include <sys/stat.h>

namespace {

const QString kProduct = QStringLiteral("recorder");
const QString kPlatform = QStringLiteral("linux");

} // namespace

AppUpdates::AppUpdates(QNetworkAccessManager &net, Options options, QObject *parent)
    : QObject(parent)
    , m_net(net)
    , m_options(std::move(options))
{
    ask = [](const Alert &alert, std::function<void(int)> answer) { AlertBox::show(alert, std::move(answer)); };
    reveal = [](const QString &path, std::function<void()> failed) { FolderReveal::show(path, std::move(failed)); };
    if (m_options.workRoot.isEmpty())
        m_options.workRoot = defaultWorkRoot();
}

QString AppUpdates::defaultWorkRoot()
{
    return DataFolder::pathOf(QStringLiteral("updates"));
}

AppUpdates::~AppUpdates() = default;

bool AppUpdates::newer(const QString &a, const QString &b)
{
    return UpdatePolicy::newer(a, b);
}

QString AppUpdates::host() const
{
    return QUrl(m_options.webBase).host();
}

void AppUpdates::show(const Alert &alert, std::function<void(int)> answer)
{
    if (ask)
        ask(alert, std::move(answer));
}

// --- The release check ---------------------------------------------------------------------

void AppUpdates::check(bool manual)
{
    if (!m_options.serverLocked || m_checking)
        return;
    m_checking = true;
    if (m_options.webBase.isEmpty() && !manual) {
        // A build made without an event web service has no feed to ask: nothing has failed.
        bravaLog(QStringLiteral("no update feed configured"));
        QMetaObject::invokeMethod(this, [this] { endCheck(); }, Qt::QueuedConnection);
        return;
    }
    const QUrl url(m_options.webBase + QLatin1String(kFeedPath));
    if (m_options.webBase.isEmpty() || !url.isValid() || url.scheme() != QLatin1String("https")) {
        QMetaObject::invokeMethod(
            this, [this, manual] { checkFailed(QStringLiteral("Update service unavailable"), manual); },
            Qt::QueuedConnection);
        return;
    }
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setRawHeader("Cache-Control", "no-cache");
    request.setTransferTimeout(kFeedTimeoutMs);
    QNetworkReply *reply = m_net.get(request);
    reply->setParent(this);
    // A body that reaches the limit is cut off at once rather than read to its end.
    connect(reply, &QNetworkReply::readyRead, reply, [reply] {
        if (reply->bytesAvailable() >= kMaxFeedBytes)
            reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, manual] { feedArrived(reply, manual); });
}

void AppUpdates::feedArrived(QNetworkReply *reply, bool manual)
{
    reply->deleteLater();
    const QNetworkReply::NetworkError error = reply->error();
    // Transport errors keep their own text; an answer that is not a 200 over https (a redirect to
    // http included), or a body that reached the limit (the transfer was cut off:
    // OperationCanceledError), is the service's fault.
    if (error != QNetworkReply::NoError && error != QNetworkReply::OperationCanceledError
        && error != QNetworkReply::InsecureRedirectError && error < QNetworkReply::ContentAccessDenied) {
        checkFailed(reply->errorString(), manual);
        return;
    }
    const QByteArray body = error == QNetworkReply::NoError ? reply->read(kMaxFeedBytes) : QByteArray();
    if (error != QNetworkReply::NoError || reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200
        || reply->url().scheme() != QLatin1String("https") || body.size() >= kMaxFeedBytes) {
        checkFailed(QStringLiteral("Update service unavailable"), manual);
        return;
    }
    decide(body, manual);
}

void AppUpdates::decide(const QByteArray &body, bool manual)
{
    QString error;
    const std::optional<ReleaseFeed> feed = ReleaseFeed::decode(body, &error);
    if (!feed) {
        checkFailed(error, manual);
        return;
    }
    if (feed->schema != 1 || feed->edition != QLatin1String("show")) {
        checkFailed(QStringLiteral("Unexpected update feed"), manual);
        return;
    }
    const std::optional<Release> chosen = feed->choose(kProduct, kPlatform);
    const QString running = m_options.runningVersion;
    if (!chosen || !newer(chosen->version, running)) {
        m_lastError.clear();
        if (manual)
            show(UpdateAlerts::upToDate(running));
        endCheck();
        return;
    }
    if (!UpdatePolicy::allowed(chosen->url, host()) || !UpdatePolicy::digestWellFormed(chosen->sha256)
        || !UpdatePolicy::versionWellFormed(chosen->version)) {
        checkFailed(QStringLiteral("Invalid update release"), manual);
        return;
    }
    m_lastError.clear();
    m_pending = chosen;
    if (manual)
        m_prompted.clear();
    m_checking = false; // the offer below may follow at once
    if (!isBusy())
        offerPending();
    else if (manual)
        show(UpdateAlerts::availableButBusy(chosen->version));
    endCheck();
}

void AppUpdates::checkFailed(const QString &error, bool manual)
{
    m_lastError = error;
    bravaLog(QStringLiteral("update check failed: ") + error);
    if (manual)
        show(UpdateAlerts::checkFailed());
    endCheck();
}

void AppUpdates::endCheck()
{
    m_checking = false;
    Q_EMIT checkFinished();
}

QString AppUpdates::activity() const
{
    if (m_verifying)
        return QStringLiteral("Verifying the update…");
    if (m_received < 0)
        return {};
    if (m_total > 0) // in steps of 5 %: the menu is not redrawn for every piece
        return QStringLiteral("Downloading the update… %1 %").arg(m_received * 20 / m_total * 5);
    return QStringLiteral("Downloading the update… %1 MB").arg(m_received >> 20);
}

void AppUpdates::offerPending()
{
    if (m_handOverOwed && !m_checking && !isBusy()) {
        m_handOverOwed = false;
        handOver();
        return;
    }
    if (m_checking || !m_pending || m_prompted == m_pending->version || isBusy())
        return;
    const Release release = *m_pending;
    m_prompted = release.version;
    show(UpdateAlerts::offer(release.version), [this, release](int button) {
             if (button == 0)
                 download(release);
         });
}

// --- Download and verification -------------------------------------------------------------

void AppUpdates::download(const Release &release)
{
    if (m_checking || isBusy() || !UpdatePolicy::allowed(release.url, host()))
        return;
    if (!newer(release.version, m_options.runningVersion)) {
        bravaLog(QStringLiteral("update refused: version ") + release.version + QStringLiteral(" is not newer"));
        return;
    }
    if (release.version == m_verifiedVersion && QFileInfo(m_verified).isDir()) {
        handOver();
        return;
    }
    m_checking = true;
    m_verified.clear();
    m_verifiedVersion.clear();
    m_handOverOwed = false;
    const QString work = m_options.workRoot + QStringLiteral("/brava-update-")
        + QUuid::createUuid().toString(QUuid::WithoutBraces);
    if (!QDir().mkpath(m_options.workRoot) || ::mkdir(QFile::encodeName(work).constData(), 0700) != 0) {
        QMetaObject::invokeMethod(
            this, [this] { verified(false, QStringLiteral("cannot make the work folder"), QString(), QString()); },
            Qt::QueuedConnection);
        return;
    }
    m_work = work;
    pruneEarlier(work);
    const QString file = work + QLatin1Char('/') + UpdatePolicy::archiveName(release.version);
    auto *transfer = new UpdateDownload(m_net, release.url, host(), file + QStringLiteral(".part"),
                                        m_options.maxDownloadBytes, m_options.downloadDeadlineMs, this);
    m_received = 0;
    m_total = -1;
    connect(transfer, &UpdateDownload::progress, this, [this](qint64 received, qint64 total) {
        m_received = received;
        m_total = total;
    });
    connect(transfer, &UpdateDownload::finished, this,
            [this, transfer, release, work, file](const QString &error, const QString &sha256) {
                transfer->deleteLater();
                downloaded(release, work, file, error, sha256);
            });
    bravaLog(QStringLiteral("update: downloading version ") + release.version);
    transfer->start();
}

void AppUpdates::downloaded(const Release &release, const QString &work, const QString &file, const QString &error,
                            const QString &sha256)
{
    m_received = -1;
    if (!error.isEmpty()) {
        verified(false, error, QString(), QString());
        return;
    }
    if (sha256 != release.sha256) {
        verified(false, QStringLiteral("Download integrity check failed"), QStringLiteral("digest ") + sha256, QString());
        return;
    }
    if (!QFile::rename(file + QStringLiteral(".part"), file)) {
        verified(false, QStringLiteral("cannot keep the download"), QString(), QString());
        return;
    }
    ReleaseVerifier::Input input{file, work, release.version, m_options.identifier, m_options.publicKeyPem,
                                 m_options.limits};
    m_verifying = true;
    auto result = std::make_shared<ReleaseVerifier::Result>();
    QThread *worker = QThread::create([input, result] { *result = ReleaseVerifier::verify(input); });
    connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    connect(worker, &QThread::finished, this,
            [this, result, version = release.version] {
                m_verifiedVersion = result->ok ? version : QString();
                verified(result->ok, result->error, result->detail, result->appFolder);
            });
    worker->start();
}

void AppUpdates::verified(bool ok, const QString &error, const QString &detail, const QString &folder)
{
    m_checking = false;
    m_verifying = false;
    if (!ok) {
        m_lastError = error;
        bravaLog(QStringLiteral("update refused: ") + error + (detail.isEmpty() ? QString() : QStringLiteral(" (") + detail + QLatin1Char(')')));
        discardWork();
        show(UpdateAlerts::notOpened());
        Q_EMIT downloadFinished(false);
        return;
    }
    m_lastError.clear();
    m_work.clear(); // kept: the person starts or copies the verified build from there
    m_verified = folder;
    bravaLog(QStringLiteral("update verified: ") + folder);
    handOver();
    Q_EMIT downloadFinished(true);
}

// A refused or failed download leaves nothing: the whole work folder (a partial archive of up to the
// cap, an unpacked build that did not verify) goes at once, off the main thread.
void AppUpdates::discardWork()
{
    if (m_work.isEmpty())
        return;
    QThread *worker = QThread::create([work = std::exchange(m_work, QString())] {
        if (!QDir(work).removeRecursively())
            bravaLog(QStringLiteral("update: cannot remove ") + work);
    });
    connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    worker->start();
}

// A new download takes the place of the earlier ones (a verified build from before, what a crash
// left), except the folder this agent itself runs from; off the main thread.
void AppUpdates::pruneEarlier(const QString &keep)
{
    QThread *worker = QThread::create([root = m_options.workRoot, keep, running = QCoreApplication::applicationFilePath()] {
        for (const QFileInfo &work : QDir(root).entryInfoList({QStringLiteral("brava-update-*")}, QDir::Dirs | QDir::NoDotAndDotDot))
            if (work.filePath() != keep && !work.isSymLink() && !running.startsWith(work.filePath() + QLatin1Char('/'))
                && !QDir(work.filePath()).removeRecursively())
                bravaLog(QStringLiteral("update: cannot remove ") + work.filePath());
    });
    connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    worker->start();
}

void AppUpdates::handOver()
{
    if (isBusy()) {
        m_handOverOwed = true;
        show(UpdateAlerts::verifiedButBusy());
        return;
    }
    show(UpdateAlerts::verified(m_options.installedFolder, m_verified, m_options.packageManaged), [this, folder = m_verified](int button) {
        if (button != 0)
            return;
        if (isBusy()) {
            m_handOverOwed = true;
            show(UpdateAlerts::verifiedButBusy());
        } else if (reveal)
            reveal(folder, [self = QPointer<AppUpdates>(this), folder] {
                if (self)
                    self->show(UpdateAlerts::notShown(folder));
            });
    });
}

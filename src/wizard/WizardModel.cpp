#include "WizardModel.h"

#include "BravaLog.h"
#include "CheckIn.h"
#include "BuildInfo.h"
#include "Connection.h"
#include "Permissions.h"
#include "QueryString.h"
#include "Recorder.h"
#include "RoomDiscovery.h"
#include "Settings.h"
#include "StrictInt.h"
#include "TextTools.h"

#include <QFile>
#include <QMetaEnum>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {

QVariantList deviceList(const QList<Device> &devices)
{
    QVariantList list;
    for (const Device &d : devices)
        list.append(QVariantMap{{QStringLiteral("uid"), d.uid}, {QStringLiteral("name"), d.name}});
    return list;
}

// A text from outside, cut to a length the screens can show.
QString bounded(const QString &text)
{
    return text.left(WizardModel::kMaxAnswerText);
}

} // namespace

WizardModel::WizardModel(Parts parts, QObject *parent)
    : QObject(parent)
    , m_rec(parts.recorder)
    , m_permissions(parts.permissions)
    , m_conn(parts.connection)
    , m_discovery(parts.discovery)
    , m_net(parts.net)
    , m_settings(parts.settings)
    , m_build(parts.build)
    , m_trayAvailable(parts.trayAvailable)
{
    m_step = SetupStep::clamp(m_settings.wizardStep());
    m_furthest = qBound(m_step, m_settings.wizardFurthest(), int(SetupStep::Done));
    const int id = m_settings.agentID();
    m_agentText = id >= 1 ? QString::number(id) : QString();
    m_nameText = m_settings.agentName();
    m_server = m_settings.server();
    m_micUID = m_settings.micUID();
    m_camUID = m_settings.camUID();
    // Inside a Flatpak sandbox the portal decides, and the repair texts differ.
    m_sandboxed = QFile::exists(QStringLiteral("/.flatpak-info"));
    readDevices();
    m_discovery.onChange = [this] { roomsUpdated(); };
    m_discovery.start();
    roomsUpdated();
}

WizardModel::~WizardModel()
{
    m_discovery.onChange = nullptr;
    m_discovery.stop();
    if (m_reply) {
        m_reply->disconnect(this); // no answer reaches a model that is going
        m_reply->abort();
    }
}

QStringList WizardModel::stepNames()
{
    const QMetaEnum steps = QMetaEnum::fromType<SetupStep::Step>();
    QStringList names;
    for (int i = 0; i < steps.keyCount(); ++i)
        names.append(QLatin1String(steps.key(i)));
    return names;
}

QString WizardModel::unreachableText()
{
    return QStringLiteral("Couldn't reach the list — check your Wi-Fi and tap Next again.");
}

QString WizardModel::mismatchText()
{
    return QStringLiteral("That name and number don't match our list. Double-check your agent number.");
}

std::optional<int> WizardModel::parseAgentID(const QString &text)
{
    return parseStrictInt(text, 1, 110);
}

bool WizardModel::serverLocked() const
{
    return m_build.serverLocked();
}

void WizardModel::setStep(int step)
{
    Q_ASSERT(step >= SetupStep::Welcome && step <= SetupStep::Done);
    const int previous = m_step;
    m_step = step;
    m_settings.setWizardStep(step);
    if (m_furthest < step)
        setFurthest(step);
    // Tied to leaving the camera step on purpose: leaving the sound check keeps its run going.
    if (previous == SetupStep::Camera && step != SetupStep::Camera && m_testing) {
        setTesting(false);
        m_rec.stop(nullptr);
    }
    // Announced last, so that a screen that appears now sees the rules' outcome.
    if (step != previous)
        Q_EMIT stepChanged();
}

void WizardModel::setFurthest(int furthest)
{
    m_furthest = furthest;
    m_settings.setWizardFurthest(furthest);
    Q_EMIT furthestChanged();
}

void WizardModel::setTesting(bool on)
{
    if (m_testing == on)
        return;
    m_testing = on;
    Q_EMIT testingChanged();
}

void WizardModel::setAgree(bool on)
{
    if (m_agree == on)
        return;
    m_agree = on;
    Q_EMIT agreeChanged();
}

void WizardModel::setAgentText(const QString &text)
{
    if (m_agentText == text)
        return;
    m_agentText = text;
    Q_EMIT agentTextChanged();
}

void WizardModel::setNameText(const QString &text)
{
    if (m_nameText == text)
        return;
    m_nameText = text;
    Q_EMIT nameTextChanged();
}

void WizardModel::setServer(const QString &text)
{
    if (m_server == text)
        return;
    m_server = text;
    Q_EMIT serverChanged();
}

QString WizardModel::serverProblem() const
{
    const QString typed = m_server.trimmed();
    if (typed.isEmpty() || QueryString::at(QStringLiteral("ws"), typed, QStringLiteral("/agent"), {}).isValid())
        return QString();
    return QStringLiteral("“%1” is not a control-room address: type it as the control room shows it, such as 192.168.1.10:4777.")
        .arg(typed.left(64));
}

void WizardModel::setTrayAvailable(bool available)
{
    if (m_trayAvailable == available)
        return;
    m_trayAvailable = available;
    Q_EMIT trayAvailableChanged();
}

void WizardModel::go(int target)
{
    if (target < 0 || target > m_furthest)
        return;
    setStep(target);
}

void WizardModel::back()
{
    if (m_step >= 1)
        setStep(m_step - 1);
}

void WizardModel::tick(float mic, float sys, bool connected)
{
    m_connected = connected;
    refreshPermissions();
    readDevices();
    m_mic = mic;
    m_sys = sys;
    if (m_testing) {
        if (m_mic > kMicHeard)
            m_micHeard = true;
        if (m_sys > kSysHeard)
            m_sysHeard = true;
    }
    Q_EMIT tickChanged();
}

void WizardModel::refreshPermissions()
{
    using S = Permissions::Status;
    const S mic = m_permissions.microphone();
    const S cam = m_permissions.camera();
    const S computerAudio = m_permissions.computerAudio();
    const bool screen = computerAudio == S::Authorized, screenDenied = computerAudio == S::Denied;
    const bool micOK = mic == S::Authorized, micDenied = mic == S::Denied;
    const bool camOK = cam == S::Authorized, camDenied = cam == S::Denied;
    if (micOK == m_micOK && micDenied == m_micDenied && camOK == m_camOK && camDenied == m_camDenied
        && screen == m_screenOK && screenDenied == m_screenDenied)
        return;
    m_screenDenied = screenDenied;
    m_micOK = micOK;
    m_micDenied = micDenied;
    m_camOK = camOK;
    m_camDenied = camDenied;
    m_screenOK = screen;
    Q_EMIT permissionsChanged();
}

void WizardModel::askMic()
{
    const bool first = !m_micAsked;
    m_micAsked = true;
    refreshPermissions();
    if (first)
        Q_EMIT permissionsChanged(); // micNoServer may now be true
}

void WizardModel::askCamera()
{
    m_permissions.recheckCamera();
    refreshPermissions();
    if (m_camOK) {
        m_rec.setupCameraAllowed = true;
        m_rec.ensureCamera();
    }
}

void WizardModel::askScreen()
{
    if (!m_screenAsked) {
        m_screenAsked = true;
        Q_EMIT permissionsChanged();
    }
    refreshPermissions();
}

void WizardModel::relaunch(int step)
{
    Q_ASSERT(step >= SetupStep::Welcome && step <= SetupStep::Done);
    m_settings.setWizardStep(step);
    bravaLog(QStringLiteral("setup restarts the agent at step %1").arg(step));
    if (onRelaunch)
        onRelaunch();
}

void WizardModel::readDevices()
{
    const QVariantList mics = deviceList(m_rec.mics());
    const QVariantList cams = deviceList(m_rec.cameras());
    if (mics == m_mics && cams == m_cams)
        return;
    m_mics = mics;
    m_cams = cams;
    m_hasCamera = !cams.isEmpty(); // a camera plugged in during setup is offered
    Q_EMIT devicesChanged();
}

void WizardModel::selectMic(const QString &uid)
{
    m_micUID = uid;
    m_settings.setMicUID(uid);
    Q_EMIT devicesChanged();
    m_rec.restartMic();
}

void WizardModel::selectCamera(const QString &uid)
{
    m_camUID = uid;
    m_settings.setCamUID(uid);
    Q_EMIT devicesChanged();
    m_rec.restartCamera();
}

void WizardModel::roomsUpdated()
{
    QStringList rooms;
    for (const Room &r : m_discovery.rooms())
        rooms.append(r.name + QStringLiteral(" (") + r.address() + QLatin1Char(')'));
    if (rooms != m_rooms) {
        m_rooms = rooms;
        Q_EMIT roomsChanged();
    }
    autoFillRoom();
}

void WizardModel::autoFillRoom()
{
    if (!m_server.trimmed().isEmpty() || m_discovery.rooms().isEmpty())
        return;
    setServer(m_discovery.rooms().first().address());
}

void WizardModel::chooseRoom(int index)
{
    if (index >= 0 && index < m_discovery.rooms().size())
        setServer(m_discovery.rooms().at(index).address());
}

void WizardModel::setVerify(bool verifying, std::optional<QString> error)
{
    m_verifying = verifying;
    m_verifyError = std::move(error);
    Q_EMIT verifyChanged();
}

void WizardModel::verifyAndSave()
{
    const QString name = TextTools::trimSpacesAndTabs(m_nameText);
    if (!agentID() || name.isEmpty() || m_verifying)
        return;
    // Without a preset room, or without an event web service, there is no list to check against.
    if (!m_build.serverLocked() || m_build.webServiceURL().isEmpty()) {
        if (m_build.serverLocked())
            bravaLog(QStringLiteral("this build has no event web service: agent %1 is taken unchecked").arg(*agentID()));
        setVerify(false, std::nullopt);
        saveAgent();
        return;
    }
    if (const QString problem = m_build.webServiceProblem(); !problem.isEmpty()) {
        bravaLog(QStringLiteral("agent check impossible: ") + problem);
        setVerify(false, problem);
        return;
    }
    setVerify(true, std::nullopt);
    const QJsonObject body{{QStringLiteral("token"), QString::fromLatin1(CheckIn::token)},
                           {QStringLiteral("name"), name},
                           {QStringLiteral("number"), *agentID()}};
    QNetworkRequest request(CheckIn::verifyURL(m_build));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(verifyTimeoutMs);
    m_reply = m_net.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    QNetworkReply *reply = m_reply;
    // The reply is a child of the manager; `this` as context drops the answer when the model is gone.
    connect(reply, &QNetworkReply::finished, this, [this, reply] { verified(reply); });
}

void WizardModel::verified(QNetworkReply *reply)
{
    reply->deleteLater();
    // Only the body decides, whatever the status; no status at all means nothing came back.
    const bool answered = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()
                          && reply->error() != QNetworkReply::OperationCanceledError;
    const QByteArray data = answered ? reply->read(kMaxAnswerBytes) : QByteArray();
    const QJsonDocument doc = QJsonDocument::fromJson(data);
    if (data.isEmpty() || !doc.isObject()) {
        bravaLog(QStringLiteral("agent check failed: ")
                 + (answered ? QStringLiteral("the answer is not a JSON object") : reply->errorString()));
        setVerify(false, unreachableText());
        return;
    }
    const QJsonObject answer = doc.object();
    if (answer.value(QStringLiteral("ok")) == QJsonValue(true)) {
        const QJsonValue name = answer.value(QStringLiteral("name"));
        if (name.isString() && !TextTools::trimSpacesAndTabs(name.toString()).isEmpty())
            setNameText(bounded(name.toString()));
        setVerify(false, std::nullopt);
        saveAgent();
        return;
    }
    const QJsonValue message = answer.value(QStringLiteral("message"));
    const QString text = message.isString() ? bounded(message.toString()) : mismatchText();
    bravaLog(QStringLiteral("agent check refused: ") + text);
    setVerify(false, text);
}

void WizardModel::saveAgent()
{
    const std::optional<int> id = agentID();
    if (!id)
        return;
    m_settings.setAgentID(*id);
    m_settings.setAgentName(m_nameText);
    m_settings.setServer(m_server);
    m_conn.open();
    setStep(SetupStep::Mic);
}

void WizardModel::startTest()
{
    if (m_testing)
        return;
    setTesting(true);
    m_micHeard = false;
    m_sysHeard = false;
    Q_EMIT tickChanged();
    m_rec.start(std::nullopt, WriterSetup{}, nullptr); // a sound check writes nothing
}

void WizardModel::finish()
{
    if (onFinish)
        onFinish();
}

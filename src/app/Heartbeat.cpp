#include "Heartbeat.h"

#include "Protocol.h"

#include <QJsonArray>
#include <QJsonObject>

namespace Heartbeat {

using namespace Protocol;

namespace {
QJsonArray devices(const QList<Device> &list)
{
    QJsonArray out;
    for (const Device &d : list)
        out.append(QJsonObject{{QLatin1String(Status::deviceUid), d.uid}, {QLatin1String(Status::deviceName), d.name}});
    return out;
}

QJsonValue textOrNull(const std::optional<QString> &text)
{
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}
} // namespace

OrderedJson message(const Values &v)
{
    OrderedJson m;
    m.insert(QLatin1String(Protocol::type), QLatin1String(Status::type))
        .insert(QLatin1String(Status::updateBusy), v.updateBusy)
        .insert(QLatin1String(Status::recording), v.recording)
        .insert(QLatin1String(Status::live), v.live)
        .insert(QLatin1String(Status::mic), v.mic)
        .insert(QLatin1String(Status::sys), v.sys)
        .insert(QLatin1String(Status::rate), v.rate)
        .insert(QLatin1String(Status::cam), v.cam)
        .insert(QLatin1String(Status::camActive), v.camActive)
        .insert(QLatin1String(Status::camError), textOrNull(v.camError))
        .insert(QLatin1String(Status::micName), v.micName)
        .insert(QLatin1String(Status::mics), devices(v.mics))
        .insert(QLatin1String(Status::cams), devices(v.cams))
        .insert(QLatin1String(Status::micUID), v.micUID)
        .insert(QLatin1String(Status::camUID), v.camUID)
        .insert(QLatin1String(Status::error), textOrNull(v.error));
    return m;
}

} // namespace Heartbeat

#include "Heartbeat.h"

#include <QJsonArray>
#include <QJsonObject>

namespace Heartbeat {

namespace {
QJsonArray devices(const QList<Device> &list)
{
    QJsonArray out;
    for (const Device &d : list)
        out.append(QJsonObject{{QStringLiteral("uid"), d.uid}, {QStringLiteral("name"), d.name}});
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
    m.insert(QStringLiteral("type"), QStringLiteral("status"))
        .insert(QStringLiteral("updateBusy"), v.updateBusy)
        .insert(QStringLiteral("recording"), v.recording)
        .insert(QStringLiteral("live"), v.live)
        .insert(QStringLiteral("mic"), v.mic)
        .insert(QStringLiteral("sys"), v.sys)
        .insert(QStringLiteral("rate"), v.rate)
        .insert(QStringLiteral("cam"), v.cam)
        .insert(QStringLiteral("camActive"), v.camActive)
        .insert(QStringLiteral("camError"), textOrNull(v.camError))
        .insert(QStringLiteral("micName"), v.micName)
        .insert(QStringLiteral("mics"), devices(v.mics))
        .insert(QStringLiteral("cams"), devices(v.cams))
        .insert(QStringLiteral("micUID"), v.micUID)
        .insert(QStringLiteral("camUID"), v.camUID)
        .insert(QStringLiteral("error"), textOrNull(v.error));
    return m;
}

} // namespace Heartbeat

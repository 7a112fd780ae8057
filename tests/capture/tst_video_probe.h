#pragma once

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVector>

// ffprobe as the oracle for camera files: what a finished or cut-off MP4 really holds.
namespace VideoProbe {

inline QJsonObject run(const QStringList &args)
{
    QProcess p;
    p.start(QStringLiteral("ffprobe"), QStringList{QStringLiteral("-v"), QStringLiteral("error")} + args
                                           + QStringList{QStringLiteral("-of"), QStringLiteral("json")});
    if (!p.waitForFinished(60000) || p.exitCode() != 0)
        return {};
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

/// The first video stream's fields plus "format_duration" and "nb_read_frames" (decoded count).
inline QJsonObject stream(const QString &path)
{
    const QJsonObject doc = run({QStringLiteral("-count_frames"), QStringLiteral("-select_streams"), QStringLiteral("v:0"),
                                 QStringLiteral("-show_entries"),
                                 QStringLiteral("stream=codec_name,width,height,bit_rate,start_time,duration,nb_read_frames:format=duration,size"),
                                 path});
    const QJsonArray streams = doc.value(QStringLiteral("streams")).toArray();
    if (streams.isEmpty())
        return {};
    QJsonObject out = streams.first().toObject();
    const QJsonObject format = doc.value(QStringLiteral("format")).toObject();
    out.insert(QStringLiteral("format_duration"), format.value(QStringLiteral("duration")));
    out.insert(QStringLiteral("format_size"), format.value(QStringLiteral("size")));
    return out;
}

struct Packet {
    double pts = 0;
    bool key = false;
    int size = 0;
};

/// Every video packet in file order.
inline QVector<Packet> packets(const QString &path)
{
    const QJsonObject doc = run({QStringLiteral("-select_streams"), QStringLiteral("v:0"), QStringLiteral("-show_entries"),
                                 QStringLiteral("packet=pts_time,flags,size"), path});
    QVector<Packet> out;
    for (const QJsonValue &v : doc.value(QStringLiteral("packets")).toArray()) {
        const QJsonObject o = v.toObject();
        out.append({o.value(QStringLiteral("pts_time")).toString().toDouble(),
                    o.value(QStringLiteral("flags")).toString().startsWith(QLatin1Char('K')),
                    o.value(QStringLiteral("size")).toString().toInt()});
    }
    return out;
}

struct Brightness {
    double pts = 0;
    double luma = 0;
};

/// Mean luma of every decoded frame with its presentation time (signalstats YAVG).
inline QVector<Brightness> brightness(const QString &path)
{
    QString escaped = path;
    escaped.replace(QLatin1Char(','), QStringLiteral("\\,"));
    const QJsonObject doc = run({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                 QStringLiteral("movie=") + escaped + QStringLiteral(",signalstats"), QStringLiteral("-show_entries"),
                                 QStringLiteral("frame=pts_time:frame_tags=lavfi.signalstats.YAVG")});
    QVector<Brightness> out;
    for (const QJsonValue &v : doc.value(QStringLiteral("frames")).toArray()) {
        const QJsonObject o = v.toObject();
        out.append({o.value(QStringLiteral("pts_time")).toString().toDouble(),
                    o.value(QStringLiteral("tags")).toObject().value(QStringLiteral("lavfi.signalstats.YAVG")).toString().toDouble()});
    }
    return out;
}

} // namespace VideoProbe

#include "MediaProbe.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>

#include <cmath>
#include <cstring>

namespace MediaProbe {

bool available()
{
    return !QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty()
        && !QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty();
}

namespace {
QJsonObject probe(const QStringList &args)
{
    QProcess p;
    p.start(QStringLiteral("ffprobe"), QStringList{QStringLiteral("-v"), QStringLiteral("error")} + args
                                           + QStringList{QStringLiteral("-of"), QStringLiteral("json")});
    if (!p.waitForFinished(60000) || p.exitCode() != 0)
        return {};
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

QJsonObject firstStream(const QString &path, const QString &which, const QString &entries)
{
    QStringList args{QStringLiteral("-select_streams"), which, QStringLiteral("-show_entries"), entries, path};
    if (which.startsWith(QLatin1Char('v')))
        args.prepend(QStringLiteral("-count_frames"));
    const QJsonObject doc = probe(args);
    const QJsonArray streams = doc.value(QStringLiteral("streams")).toArray();
    if (streams.isEmpty())
        return {};
    QJsonObject out = streams.first().toObject();
    out.insert(QStringLiteral("format_duration"), doc.value(QStringLiteral("format")).toObject().value(QStringLiteral("duration")));
    return out;
}
} // namespace

QJsonObject stream(const QString &path)
{
    return firstStream(path, QStringLiteral("a:0"),
                       QStringLiteral("stream=codec_name,sample_rate,channels,bit_rate,duration,start_time:format=duration"));
}

QJsonObject video(const QString &path)
{
    return firstStream(path, QStringLiteral("v:0"),
                       QStringLiteral("stream=codec_name,width,height,bit_rate,nb_read_frames,start_time:format=duration"));
}

double firstBrightFrame(const QString &path, double luma)
{
    QString escaped = path;
    escaped.replace(QLatin1Char(','), QStringLiteral("\\,"));
    const QJsonObject doc = probe({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                   QStringLiteral("movie=") + escaped + QStringLiteral(",signalstats"),
                                   QStringLiteral("-show_entries"), QStringLiteral("frame=pts_time:frame_tags=lavfi.signalstats.YAVG")});
    for (const QJsonValue &v : doc.value(QStringLiteral("frames")).toArray()) {
        const QJsonObject o = v.toObject();
        if (o.value(QStringLiteral("tags")).toObject().value(QStringLiteral("lavfi.signalstats.YAVG")).toString().toDouble() > luma)
            return o.value(QStringLiteral("pts_time")).toString().toDouble();
    }
    return -1;
}

QVector<float> decode(const QString &path, QString *errors)
{
    // Keep the file's own time stamps and present what a player presents: from time 0 (the
    // encoder's priming carries negative times) to the end the file declares.
    QString trim = QStringLiteral("atrim=start=0");
    const QJsonObject f = probe({QStringLiteral("-show_entries"), QStringLiteral("format=start_time,duration"), path})
                              .value(QStringLiteral("format")).toObject();
    bool okStart = false, okDuration = false;
    const double start = f.value(QStringLiteral("start_time")).toString().toDouble(&okStart);
    const double duration = f.value(QStringLiteral("duration")).toString().toDouble(&okDuration);
    if (okStart && okDuration)
        trim += QStringLiteral(":end=") + QString::number(start + duration, 'f', 6);
    QProcess p;
    p.start(QStringLiteral("ffmpeg"), {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-copyts"),
                                       QStringLiteral("-i"), path, QStringLiteral("-af"), trim,
                                       QStringLiteral("-ac"), QStringLiteral("1"), QStringLiteral("-ar"),
                                       QStringLiteral("48000"), QStringLiteral("-f"), QStringLiteral("f32le"),
                                       QStringLiteral("-")});
    if (!p.waitForFinished(120000))
        return {};
    if (errors)
        *errors = QString::fromUtf8(p.readAllStandardError());
    const QByteArray raw = p.readAllStandardOutput();
    QVector<float> out(raw.size() / qsizetype(sizeof(float)));
    std::memcpy(out.data(), raw.constData(), size_t(out.size()) * sizeof(float));
    return out;
}

qsizetype firstAbove(const QVector<float> &samples, float threshold, qsizetype from)
{
    for (qsizetype i = std::max<qsizetype>(from, 0); i < samples.size(); ++i)
        if (std::fabs(samples[i]) >= threshold)
            return i;
    return -1;
}

} // namespace MediaProbe

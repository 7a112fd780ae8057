#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QVector>

// ffprobe and ffmpeg as test oracles: what a finished file really contains.
namespace MediaProbe {

/// The first audio stream's fields (codec_name, sample_rate, channels, bit_rate, duration, start_time) and
/// the format's duration as "format_duration"; empty when ffprobe cannot read the file.
QJsonObject stream(const QString &path);
/// The first video stream's fields (codec_name, width, height, bit_rate, nb_read_frames, start_time) plus
/// "format_duration"; empty when ffprobe cannot read the file.
QJsonObject video(const QString &path);
/// Time of the first video frame whose mean luma exceeds `luma` (-1 when none).
double firstBrightFrame(const QString &path, double luma = 200);
/// The file decoded to mono 48 kHz float as a player presents it (times from 0 to the declared end);
/// empty on failure. `errors` gets ffmpeg's stderr.
QVector<float> decode(const QString &path, QString *errors = nullptr);
/// Index of the first sample whose magnitude reaches `threshold`, -1 when none.
qsizetype firstAbove(const QVector<float> &samples, float threshold, qsizetype from = 0);
/// True when ffprobe and ffmpeg are installed.
bool available();

} // namespace MediaProbe

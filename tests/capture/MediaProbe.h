#pragma once

#include <QJsonObject>
#include <QString>
#include <QVector>

// ffprobe and ffmpeg as test oracles: what a finished file really contains.
namespace MediaProbe {

/// The first audio stream's fields (codec_name, sample_rate, channels, bit_rate) plus the format's
/// duration as "format_duration"; empty when ffprobe cannot read the file.
QJsonObject stream(const QString &path);
/// The first video stream's fields (codec_name, width, height, pix_fmt, bit_rate,
/// nb_read_frames, start_time)
/// plus "format_duration"; empty when ffprobe cannot read the file.
QJsonObject video(const QString &path);
/// A field of stream() or video() as a number.
double number(const QJsonObject &o, const char *key);
/// Time of the first video frame whose mean luma exceeds 200 (-1 when none).
double firstBrightFrame(const QString &path);
/// The file decoded to mono 48 kHz float as a player presents it (times from 0 to the declared end).
QVector<float> decode(const QString &path);
/// Index of the first sample whose magnitude reaches `threshold`, -1 when none.
qsizetype firstAbove(const QVector<float> &samples, float threshold, qsizetype from = 0);

} // namespace MediaProbe

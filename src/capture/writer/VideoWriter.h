#pragma once

#include "H264Format.h"
#include "SegmentWriter.h"

// The segment writer of a camera track ("cam", "cam2"–"cam4"): H.264 in MP4. The main camera
// gets the measured preset; extra cameras the fastest, so four 1080p30 cameras fit two cores.
class VideoWriter final : public SegmentWriter
{
public:
    /// The writer of camera track `track`, at the setup's bit rate.
    VideoWriter(const QString &track, const WriterSetup &setup)
        : SegmentWriter(track,
                        std::make_unique<H264Format>(setup.videoBitrate, track == QLatin1String("cam")
                                                                             ? H264Format::kPreset
                                                                             : H264Format::kExtraPreset),
                        setup)
    {
    }
};

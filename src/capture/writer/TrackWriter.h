#pragma once

#include "AacFormat.h"
#include "SegmentWriter.h"

// The segment writer of an audio track ("mic", "sys", "room"): AAC in M4A.
class TrackWriter final : public SegmentWriter
{
public:
    explicit TrackWriter(const QString &track, double segmentSeconds = kSegmentSeconds)
        : SegmentWriter(track, std::make_unique<AacFormat>(), segmentSeconds)
    {
    }
};

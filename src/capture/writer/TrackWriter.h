#pragma once

#include "AacFormat.h"
#include "SegmentWriter.h"

// The segment writer of an audio track ("mic", "sys", "room"): AAC in M4A.
class TrackWriter final : public SegmentWriter
{
public:
    /// The writer of audio track `track`.
    TrackWriter(const QString &track, const WriterSetup &setup)
        : SegmentWriter(track, std::make_unique<AacFormat>(), setup)
    {
    }
};

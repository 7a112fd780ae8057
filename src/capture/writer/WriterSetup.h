#pragma once

#include <QString>

// What the segment writers of one take are given when the take starts: where session folders go,
// the camera tracks' bit rate and the segment length. Copied into the take; a change of the
// settings during a take applies to the next one.
struct WriterSetup
{
    /// The folder that holds one sub-folder per session (writing/ in the data folder).
    QString writingDir;
    /// Bit rate of the camera tracks in bits per second.
    int videoBitrate = 8000000;
    /// Length of one segment in seconds before it rolls over.
    double segmentSeconds = 1800.0;
};

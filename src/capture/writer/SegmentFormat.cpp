#include "SegmentFormat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

bool SegmentFormat::encode(AVCodecContext *enc, AVStream *stream, AVFrame *frame, const PacketSink &sink)
{
    int rc = avcodec_send_frame(enc, frame);
    if (rc < 0)
        return false;
    AVPacket *packet = av_packet_alloc();
    if (!packet)
        return false;
    bool ok = true;
    while ((rc = avcodec_receive_packet(enc, packet)) >= 0) {
        av_packet_rescale_ts(packet, enc->time_base, stream->time_base);
        ok = sink(packet) && ok;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return ok && (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF);
}

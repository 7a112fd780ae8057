#pragma once

#include <cstdint>
#include <memory>

struct AVFrame;

// Draws the synthetic camera's picture: a moving bar over a gradient tinted per camera (red for odd
// camera numbers, green for even ones, so that a person or a test tells two previews apart), the
// frame counter in large digits at the top left, or an all-white frame for a flash. Frames are YUV 4:2:0.
namespace TestPattern {
/// A new frame of this size showing frame number `index` in the tint of `camera`; white all over when `flash`.
std::shared_ptr<AVFrame> draw(int width, int height, int64_t index, bool flash, int camera = 1);
/// Reads back the counter drawn into a frame by draw(); -1 when it cannot be read.
int64_t readCounter(const AVFrame &frame);
/// Mean luma of the frame (0–255), to tell a flash from the pattern.
double meanLuma(const AVFrame &frame);
} // namespace TestPattern

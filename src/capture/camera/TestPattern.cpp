#include "TestPattern.h"

#include <QtGlobal>

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr int kDigits = 8;
// 3×5 bitmaps of 0–9, one row per three bits, top row first.
constexpr uint16_t kGlyphs[10] = {
    0b111'101'101'101'111, 0b010'110'010'010'111, 0b111'001'111'100'111, 0b111'001'111'001'111,
    0b101'101'111'001'001, 0b111'100'111'001'111, 0b111'100'111'101'111, 0b111'001'010'010'010,
    0b111'101'111'101'111, 0b111'101'111'001'111,
};

bool glyphBit(int digit, int col, int row) { return (kGlyphs[digit] >> (14 - (row * 3 + col))) & 1; }

// Size of one glyph cell in pixels, proportional to the picture so that a scaled copy keeps the
// counter where the reader looks for it. Cell k spans [k × cell, (k + 1) × cell).
double cellSize(int width, int height) { return std::min(double(width) / (kDigits * 4 + 2), double(height) / 12.0); }
int edge(double cell, int k) { return int(std::lround(cell * k)); }

void fillPlane(uint8_t *data, int stride, int w, int h, uint8_t value)
{
    for (int y = 0; y < h; ++y)
        std::memset(data + size_t(y) * stride, value, size_t(w));
}

void drawCounter(AVFrame &f, int64_t index)
{
    const double cell = cellSize(f.width, f.height);
    int64_t n = index < 0 ? 0 : index;
    for (int d = kDigits - 1; d >= 0; --d, n /= 10) {
        const int digit = int(n % 10);
        for (int row = 0; row < 5; ++row) {
            for (int col = 0; col < 3; ++col) {
                const uint8_t luma = glyphBit(digit, col, row) ? 235 : 16;
                const int kx = 1 + d * 4 + col, ky = 1 + row;
                const int x0 = edge(cell, kx), x1 = edge(cell, kx + 1);
                for (int y = edge(cell, ky); y < edge(cell, ky + 1); ++y)
                    std::memset(f.data[0] + size_t(y) * f.linesize[0] + x0, luma, size_t(x1 - x0));
            }
        }
    }
}

} // namespace

namespace TestPattern {

std::shared_ptr<AVFrame> draw(int width, int height, int64_t index, bool flash, int camera)
{
    Q_ASSERT(width >= 64 && height >= 48 && width % 2 == 0 && height % 2 == 0);
    AVFrame *raw = av_frame_alloc();
    if (!raw)
        return {};
    std::shared_ptr<AVFrame> frame(raw, [](AVFrame *f) { av_frame_free(&f); });
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(raw, 0) < 0)
        return {};

    if (flash) {
        fillPlane(raw->data[0], raw->linesize[0], width, height, 235);
        fillPlane(raw->data[1], raw->linesize[1], width / 2, height / 2, 128);
        fillPlane(raw->data[2], raw->linesize[2], width / 2, height / 2, 128);
        return frame;
    }

    // Gradient rows, a bar that crosses the picture every two seconds at 30 frames per second.
    const int barWidth = std::max(8, width / 16);
    const int barX = int((index * (width / 60)) % width);
    for (int y = 0; y < height; ++y) {
        uint8_t *row = raw->data[0] + size_t(y) * raw->linesize[0];
        std::memset(row, 40 + (y * 120) / height, size_t(width));
        std::memset(row + barX, 200, size_t(std::min(barWidth, width - barX)));
    }
    const uint8_t u = uint8_t(128 + 40 * ((index / 30) % 2 ? 1 : -1));
    fillPlane(raw->data[1], raw->linesize[1], width / 2, height / 2, u);
    fillPlane(raw->data[2], raw->linesize[2], width / 2, height / 2, camera % 2 ? 150 : 100);
    drawCounter(*raw, index);
    return frame;
}

int64_t readCounter(const AVFrame &f)
{
    if (f.width < 64 || f.height < 48 || !f.data[0])
        return -1;
    const double cell = cellSize(f.width, f.height);
    int64_t value = 0;
    for (int d = 0; d < kDigits; ++d) {
        uint16_t bits = 0;
        for (int row = 0; row < 5; ++row) {
            for (int col = 0; col < 3; ++col) {
                const int x = int((1 + d * 4 + col + 0.5) * cell);
                const int y = int((1 + row + 0.5) * cell);
                const bool on = f.data[0][size_t(y) * f.linesize[0] + x] > 128;
                bits = uint16_t((bits << 1) | (on ? 1 : 0));
            }
        }
        int digit = -1;
        for (int g = 0; g < 10; ++g) {
            if (kGlyphs[g] == bits)
                digit = g;
        }
        if (digit < 0)
            return -1;
        value = value * 10 + digit;
    }
    return value;
}

double meanLuma(const AVFrame &f)
{
    if (f.width <= 0 || f.height <= 0 || !f.data[0])
        return 0;
    double sum = 0;
    for (int y = 0; y < f.height; y += 4) {
        const uint8_t *row = f.data[0] + size_t(y) * f.linesize[0];
        for (int x = 0; x < f.width; x += 4)
            sum += row[x];
    }
    const double count = double((f.height + 3) / 4) * double((f.width + 3) / 4);
    return sum / count;
}

} // namespace TestPattern

#pragma once

#include <cstdint>
#include <memory>

class MpegFrame;
struct RgbConverterState;

// Converts pictures to packed 8-bit R,G,B at their own size into a buffer of its own,
// keeping its scaler while the pictures' format and size stay the same. The bytes are those
// that MpegFrame::rgb24 writes for the picture's own size; only the per-call set-up, the
// allocation and the copy are saved. Used by the background learner for every picture it
// learns from. One thread at a time; different converters are independent.
class RgbConverter {
public:
    RgbConverter();
    ~RgbConverter();

    RgbConverter(const RgbConverter&) = delete;
    RgbConverter& operator=(const RgbConverter&) = delete;

    // Converts `frame`; false when the picture is empty, too large or of a format the scaler
    // does not take. The buffer takes the picture's size first (reallocated only when the
    // size changes, black when new), so after a failure it holds black or the picture before.
    bool convert(const MpegFrame& frame);

    // The buffer: width() x height() pixels of 3 bytes, rows stride() bytes apart; null
    // before the first picture of a valid size. Valid until the next convert().
    const uint8_t* data() const;
    int stride() const;
    int width() const;
    int height() const;

private:
    std::unique_ptr<RgbConverterState> m_state;
};

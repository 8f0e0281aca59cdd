#pragma once

#include <cstdint>

struct AVBufferRef;
struct AVFrame;
struct SwsContext;
class GrayPlanes;

// One decoded picture: its brightness as an 8-bit grey plane, and converted, scaled RGB
// copies on request.
//
// Made by MpegReader::read (and by callers that build a picture for MpegWriter); the
// receiver owns it. A frame is used by one thread at a time; distinct frames are independent.
class MpegFrame {
public:
    // Takes ownership of `frame`, a picture of any pixel format swscale understands. When
    // its first plane is not already 8-bit luma, the grey picture is converted here, once.
    explicit MpegFrame(AVFrame* frame);

    // As above, for MpegReader, which keeps one scaler and one pool of grey planes for a whole
    // file: `*grayScaler` is reused while it fits the picture and replaced when it does not
    // (the caller frees it with sws_freeContext), and the grey picture, where there is one,
    // lies in a buffer from `grayPlanes`.
    MpegFrame(AVFrame* frame, SwsContext** grayScaler, GrayPlanes& grayPlanes);

    ~MpegFrame();

    MpegFrame(const MpegFrame&) = delete;
    MpegFrame& operator=(const MpegFrame&) = delete;

    // The picture's brightness, 8 bits a pixel, width() x height() pixels, rows step()
    // bytes apart (step() > 0). For planar 8-bit YUV and grey pictures this is the first
    // plane itself. Any other YUV or grey picture gives a copy of its luma samples, reduced
    // to 8 bits within its own range (limited-range video stays limited), so that a scene
    // gives the same values in every YUV format; other formats (RGB, palette) are converted
    // to grey by swscale. Writable when the frame came from
    // MpegReader::read(true) or owns its buffers; for read(false) it belongs to the decoder
    // and must only be read.
    uint8_t* data();
    const uint8_t* data() const;
    int step() const;

    int width() const;
    int height() const;

    // Scaled, converted copies into the caller's buffer of dstHeight rows, dstStride bytes
    // apart (dstStride >= dstWidth * bytes a pixel). Bilinear when the size differs, a plain
    // conversion when it is the same. Nothing outside dstWidth * bytes a pixel of each row is
    // written. Invalid arguments or an unsupported source leave the buffer untouched.
    void rgb16(void* dst, int dstStride, int dstWidth, int dstHeight) const; // RGB565 little-endian
    void rgb24(void* dst, int dstStride, int dstWidth, int dstHeight) const; // bytes R, G, B
    void rgb32(void* dst, int dstStride, int dstWidth, int dstHeight) const; // bytes B, G, R, A

    // The decoded picture itself, still owned by this frame (MpegWriter encodes it).
    AVFrame* avFrame() const;

    // Seconds: the decode timestamp of the packet that completed the picture times the
    // stream's time base. Set by MpegReader::read, 0.0 for frames made otherwise.
    double m_time = 0.0;

    // Seconds from the video's start (MpegReader::startTime) at which the picture is shown:
    // its best-effort timestamp, else its own pts. Pictures come in the order they are shown,
    // so these rise even where m_time follows the order of decoding. Set by MpegReader::read;
    // m_hasPresentationTime is false, and m_presentationTime 0.0, when the stream gives the
    // picture no timestamp at all (raw elementary streams such as .h264).
    double m_presentationTime = 0.0;
    bool m_hasPresentationTime = false;

private:
    void makeGray(SwsContext** grayScaler, GrayPlanes* grayPlanes);
    void convert(int dstFormat, int bytesPerPixel, void* dst, int dstStride, int dstWidth,
                 int dstHeight) const;

    AVFrame* m_frame;
    // Null while the first plane of m_frame is the grey picture itself.
    AVBufferRef* m_gray = nullptr;
    int m_grayStep = 0;
};

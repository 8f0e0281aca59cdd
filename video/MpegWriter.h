#pragma once

#include <cstdint>
#include <memory>

class MpegFrame;
struct MpegWriterState;

// What open() may set beyond the picture's size, rate and bit rate. The defaults are the
// short open()'s choices.
struct MpegWriterOptions {
    // FFmpeg's short name of the container ("mp4"); null: chosen from the file name.
    const char* container = nullptr;
    // The encoder's name ("libx264"); null: the container's default video codec.
    const char* encoder = nullptr;
    // The encoder's constant rate factor (libx264's "crf"), the bit rate then being ignored;
    // below 0: none.
    int constantRateFactor = -1;
    // The encoder's speed preset (libx264's "preset": "veryfast", "medium"); null: its default.
    const char* preset = nullptr;
    // MP4 and its kin: the index goes before the pictures, so that a browser starts playing
    // before it has read the whole file.
    bool indexFirst = false;
    // Prints the container's description to FFmpeg's log when the file is opened.
    bool describe = true;
};

// Encodes pictures into a new video file. The container is chosen from the file name's
// extension (MPEG program stream when the extension names no known container), the codec is
// the container's default video codec.
//
// The writer neither converts nor rescales pictures and does not set their timestamps: the
// caller hands in AV_PIX_FMT_YUV420P pictures of the size given to open() whose pts counts in
// units of timeBase() (one unit a picture at the frame rate given to open()). Pictures the
// encoder still holds when the file is closed are dropped, not flushed into the file, unless
// the caller drains the encoder first.
//
// Not thread-safe: one thread at a time. Opening and closing codecs must not run at the same
// time as another reader's or writer's, so callers hold the process-wide ffmpegMutex around
// open(), close() and destruction, as the readers' callers do.
class MpegWriter {
public:
    MpegWriter();
    ~MpegWriter(); // calls close()

    MpegWriter(const MpegWriter&) = delete;
    MpegWriter& operator=(const MpegWriter&) = delete;

    // Closes any file still open (writing its trailer), then creates `path` (UTF-8) and
    // writes its header. `bitRate` is in bits a second, `fps` in pictures a second; the time
    // base becomes 1/fps as a fraction whose terms do not exceed 65535. False on any failure;
    // FFmpeg's log tells why. After a failure the writer is half-open until close().
    bool open(const char* path, int bitRate, int width, int height, double fps);
    // The same with `options` (see MpegWriterOptions).
    bool open(const char* path, int bitRate, int width, int height, double fps, const MpegWriterOptions& options);

    // Sends one picture to the encoder and writes every packet the encoder hands back (none,
    // one or several). True when at least one packet came back and every one of them was
    // written. False for a picture the encoder holds back (encoders with a look-ahead or
    // reordering answer false for their first pictures; that is not a fatal error), for an
    // encoding or writing error, for a null frame, for a picture that is not YUV420P of the
    // size given to open() (it is refused, not converted) and when no file is open. The frame
    // stays the caller's.
    bool write(MpegFrame* frame);

    // Converts a picture of packed 8-bit R,G,B (`stride` bytes a row, the size given to
    // open()) to YUV420P with swscale's BT.601 limited-range matrix, gives it `pts`, and
    // writes it as write() does, answering as write() does. The writer keeps its scaler and
    // picture from one call to the next.
    bool writeRgb24(const std::uint8_t* rgb, int stride, std::int64_t pts);

    // Tells the encoder that no picture follows and writes every packet it still holds (the
    // pictures a look-ahead or reordering kept back), so that a caller who must not lose
    // pictures calls this before close(). True when every packet was written, also when there
    // were none; false for an encoding or writing error and when no file is open. After it,
    // write() and drain() refuse: the encoder has ended.
    bool drain();

    // Writes the trailer if the header was written and releases everything. Safe in every
    // state and when called repeatedly.
    void close();

    // True between a successful open() and close().
    bool isOpen() const;

    // The codec's time base (numerator/denominator) as set by open(); 0/1 when no codec has
    // been set up.
    int timeBaseNumerator() const;
    int timeBaseDenominator() const;

    // Short names of the chosen container (e.g. "mpeg") and encoder (e.g. "mpeg1video");
    // empty when none has been chosen.
    const char* formatName() const;
    const char* codecName() const;

private:
    std::unique_ptr<MpegWriterState> m_state;
};

#pragma once

#include "VideoInfo.h"

#include <atomic>
#include <cstdint>
#include <memory>

class MpegFrame;
struct MpegReaderState;

// Reads the first video stream of a local file and hands out its decoded pictures one at a
// time. Only the local file system is reached: names that look like URLs are file names,
// and playlists or lists naming network addresses fail to open.
//
// A reader is closed (no state), open (a decoder is ready) or half-open (a failed open()
// left its state until close()). Every operation is safe in every state.
//
// Not thread-safe: one thread at a time per reader; different readers may run on different
// threads. The analysis pass holds ffmpegMutex around open() and close() (and destruction).
class MpegReader {
public:
    MpegReader();
    ~MpegReader(); // as close()

    MpegReader(const MpegReader&) = delete;
    MpegReader& operator=(const MpegReader&) = delete;

    // Threads the decoder of the next open() may use: 1 (the default) decodes on the thread
    // calling read(); more let it decode several pictures (or slices of one) at once; 0 lets
    // FFmpeg choose from the number of cores. The pictures are the same either way, as long
    // as the packets carry decode timestamps (otherwise one picture fewer per extra thread at
    // the end of input), and the file is not damaged: FFmpeg's threads conceal damage in ways
    // that depend on their timing.
    void setDecoderThreads(int threads);
    int decoderThreads() const;

    // Closes the previous file, then opens `url` (a UTF-8 file path) and readies the decoder
    // of its first video stream. False when the file cannot be opened or probed, has no
    // video stream, or its decoder is missing or does not open; FFmpeg's log tells why.
    bool open(const char* url);

    // The next decoded picture of the chosen stream, owned by the caller; null at the end of
    // input, on a read error, and when no decoder is ready. With `clone` the picture's
    // pixels are the caller's own (they may be overwritten); without, they are shared with
    // the decoder and must only be read, and no pixel is copied. Either kind stays valid after
    // later reads and after close(). Pictures the decoder still holds back for reordering at
    // the end of input are not returned.
    MpegFrame* read(bool clone);

    // Moves to a key frame at or before `seconds` (counted from startTime()) of the chosen
    // stream: the next read() returns the pictures from there on, those before `seconds`
    // included, which the caller drops by their m_presentationTime. With an index (MP4,
    // Matroska, AVI ...) that is the last key frame at or before; containers searched by
    // their timestamps (MPEG-TS, MPEG-PS) may land a few key frames earlier. Past the end it
    // lands on the last key frame, or at the end. Open groups of pictures (MPEG-2 in MPEG-PS,
    // MPEG-4 Visual with B-pictures in AVI) show a few B-pictures before their key frame
    // that need the group before it: when `seconds` falls on those, the seek loses them.
    // `seconds` <= 0 changes nothing and gives true. False without a decoder, and when the
    // stream cannot be sought by time (a raw .h264 stream has no timestamps): reading then
    // goes on where it stood, the file being opened once more and read up to there when the
    // attempt moved it. Costs a few packets' reading with an index, more without; decodes
    // nothing. As it may open the file, callers that serialise open() serialise seek() too.
    bool seek(double seconds);

    // Seconds of the chosen stream's first timestamp (else the container's), from which
    // MpegFrame::m_presentationTime counts; 0.0 when neither is known or nothing is open.
    double startTime() const;

    // Packets of every stream the reader has taken from the file since open(), also those
    // read while seeking; 0 when closed.
    std::int64_t packetsRead() const;

    // The open file's container, codec, size, rate, duration and creation time; a default
    // VideoInfo unless open() succeeded.
    VideoInfo info() const;

    // Byte position up to which the file has been read into the input buffer; it grows in
    // steps of that buffer, not per picture. -1 when unknown or closed.
    int64_t pos() const;

    // The decoder's picture size; -1 without a decoder context (closed, or no video stream).
    int width() const;
    int height() const;

    // The stream's frame rate; 0.0 when unknown, -1.0 without a decoder context.
    double fps() const;

    // True for the motion-JPEG family (MJPEG, MJPEG-B, MxPEG).
    bool isMJPEG() const;

    // Releases everything; safe in every state and repeatedly.
    void close();

    // Index of the chosen video stream in the file; -1 when none was chosen or closed.
    int streamIndex() const;

    // Pictures returned by all readers since start; a rough throughput total.
    static std::atomic<int> m_processedFrameCount;

private:
    std::unique_ptr<MpegReaderState> m_state;
    int m_decoderThreads = 1;
};

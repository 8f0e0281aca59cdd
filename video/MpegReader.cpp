#include "MpegReader.h"

#include "FfmpegPtr.h"
#include "GrayPlanes.h"
#include "MpegFrame.h"
#include "PictureBuffers.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

std::atomic<int> MpegReader::m_processedFrameCount{0};

// Everything of one open file; members are released in reverse order, the decoder before
// the demuxer.
struct MpegReaderState {
    // The path as open() was given it: a failed seek opens the demuxer again.
    std::string path;
    FormatContextPtr formatContext;
    int streamIndex = -1;
    // Declared before the decoder, which takes its pictures from here, so that they outlive it.
    PictureBuffers pictures;
    CodecContextPtr codecContext;
    const AVCodec* codec = nullptr;
    PacketPtr packet;
    bool decoderOpen = false;
    // The packet sent to the decoder last is the one that completed the picture it hands
    // out next.
    int64_t lastDts = AV_NOPTS_VALUE;
    // Converts pictures without an 8-bit luma plane to grey; kept while format and size stay.
    SwsContextPtr grayScaler;
    // The memory of those grey pictures.
    GrayPlanes grayPlanes;
    // The input has ended and the decoder is giving what it still holds.
    bool draining = false;
    // No picture will come any more.
    bool finished = false;
    // The first timestamp of the chosen stream, in its time base: presentation times count
    // from here.
    int64_t startTimestamp = 0;
    int64_t packetsRead = 0;
};

namespace {

// The container's start and duration are in microseconds; FFmpeg's AV_TIME_BASE_Q is a C
// compound literal, which C++ compilers other than GCC refuse.
constexpr AVRational kMicroseconds{1, AV_TIME_BASE};

FormatContextPtr openLocalFile(const char* path)
{
    // With the "file:" prefix the whole path is a file name, even one that starts like a
    // URL ("http:", "concat:").
    const std::string url = std::string("file:") + path;
    // Only local files, for the file itself and for every input it names: playlists and
    // concat lists open their entries with the same whitelist.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* context = nullptr;
    const int opened = avformat_open_input(&context, url.c_str(), nullptr, &options);
    av_dict_free(&options);
    FormatContextPtr formatContext(context);
    return opened >= 0 ? std::move(formatContext) : nullptr;
}

// FFmpeg also opens text (as ANSI art) and still images as one-stream videos. Neither holds
// motion, and a folder scan meets both, so they are refused like any other non-video file.
bool isTextOrStillImage(const AVInputFormat& format)
{
    const std::string name = format.name;
    const std::string pipeSuffix = "_pipe";
    const bool imagePipe = name.size() > pipeSuffix.size()
        && name.compare(name.size() - pipeSuffix.size(), pipeSuffix.size(), pipeSuffix) == 0;
    return name == "tty" || name == "image2" || name == "image2pipe" || imagePipe;
}

int firstVideoStream(const AVFormatContext& context)
{
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        if (context.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            return static_cast<int>(i);
    }
    return -1;
}

bool openDecoder(MpegReaderState& state, int threads)
{
    const AVStream* stream = state.formatContext->streams[state.streamIndex];
    state.codecContext.reset(avcodec_alloc_context3(nullptr));
    if (!state.codecContext || avcodec_parameters_to_context(state.codecContext.get(), stream->codecpar) < 0)
        return false;
    state.codecContext->pkt_timebase = stream->time_base;
    state.pictures.serve(*state.codecContext);
    // Frame threads where the codec has them, slice threads otherwise.
    state.codecContext->thread_count = threads;
    state.codecContext->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    state.codec = avcodec_find_decoder(state.codecContext->codec_id);
    if (!state.codec)
        return false;
    state.decoderOpen = avcodec_open2(state.codecContext.get(), state.codec, nullptr) >= 0;
    return state.decoderOpen;
}

// The next packet of any stream into the state's packet. False at the end of input or on a
// read error, which are not told apart.
bool readPacket(MpegReaderState& state)
{
    if (av_read_frame(state.formatContext.get(), state.packet.get()) < 0)
        return false;
    ++state.packetsRead;
    return true;
}

// Reads packets up to the next one of the chosen stream and hands it to the decoder. False
// at the end of input or on a read error.
bool sendNextPacket(MpegReaderState& state)
{
    AVPacket* packet = state.packet.get();
    for (;;) {
        if (!readPacket(state))
            return false;
        if (packet->stream_index == state.streamIndex)
            break;
        // A packet of another stream (audio, subtitles, a later video stream).
        av_packet_unref(packet);
    }
    state.lastDts = packet->dts;
    // An error here means a broken packet; the decoder has dropped it and takes the next.
    avcodec_send_packet(state.codecContext.get(), packet);
    av_packet_unref(packet);
    return true;
}

bool usesFrameThreads(const MpegReaderState& state)
{
    return (state.codecContext->active_thread_type & FF_THREAD_FRAME) != 0;
}

// A decoder on several threads hands out each picture one call later per extra thread, so
// at the end of input it still holds pictures that packets of the file have completed.
// Draining releases those, marked with the dts of their packet, and then the pictures that
// any decoder holds back for reordering, which carry no dts: the first of those ends the
// video, so that the pictures are the same as with one thread.
bool completedByAPacket(const AVFrame& picture)
{
    return picture.pkt_dts != AV_NOPTS_VALUE;
}

// The next picture of the chosen stream, null at the end of input. Pictures the decoder
// holds back for reordering when the input ends are not returned.
FramePtr nextPicture(MpegReaderState& state)
{
    FramePtr picture(state.finished ? nullptr : av_frame_alloc());
    while (picture) {
        const int received = avcodec_receive_frame(state.codecContext.get(), picture.get());
        // A finished picture, completed by the packet sent last.
        if (received >= 0 && (!state.draining || completedByAPacket(*picture)))
            return picture;
        // The decoder has been drained, or has come to the pictures held for reordering.
        if (received >= 0 || received == AVERROR_EOF)
            break;
        // Draining goes on past a picture that failed to decode.
        if (state.draining)
            continue;
        // EAGAIN: the decoder needs more input. Any other error is a broken packet that the
        // decoder has dropped: go on with the next one.
        if (sendNextPacket(state))
            continue;
        // The end of input: only a decoder on several threads has pictures left to give.
        if (!usesFrameThreads(state))
            break;
        avcodec_send_packet(state.codecContext.get(), nullptr);
        state.draining = true;
    }
    state.finished = true;
    return nullptr;
}

// A decoder working on several pictures at once hands out a picture some packets after the
// one that completed it; it records that packet's dts in the picture.
int64_t completingDts(const MpegReaderState& state, const AVFrame& picture)
{
    const bool frameThreads = (state.codecContext->active_thread_type & FF_THREAD_FRAME) != 0;
    return frameThreads ? picture.pkt_dts : state.lastDts;
}

double secondsOf(int64_t timestamp, AVRational timeBase)
{
    const double unit = timeBase.den != 0 ? static_cast<double>(timeBase.num) / timeBase.den : 0.0;
    return static_cast<double>(timestamp) * unit;
}

// The stream's own start when it has one; the container's start is in microseconds.
int64_t firstTimestamp(const AVFormatContext& context, const AVStream& stream)
{
    if (stream.start_time != AV_NOPTS_VALUE)
        return stream.start_time;
    if (context.start_time != AV_NOPTS_VALUE)
        return av_rescale_q(context.start_time, kMicroseconds, stream.time_base);
    return 0;
}

// The time at which the decoder means the picture to be shown: the best-effort timestamp
// repairs pts that are missing or go backwards from the packets' dts.
int64_t presentationTimestamp(const AVFrame& picture)
{
    return picture.best_effort_timestamp != AV_NOPTS_VALUE ? picture.best_effort_timestamp : picture.pts;
}

// The last tick of `timeBase` at or before `seconds`, clamped into the range timestamps can
// take. A billionth of a tick is forgiven, so that the time of a picture given back as
// seconds finds that picture rather than the one before.
int64_t ticksAtOrBefore(double seconds, AVRational timeBase)
{
    const double ticks = std::floor(seconds * timeBase.den / timeBase.num + 1e-9);
    constexpr double limit = static_cast<double>(std::numeric_limits<int64_t>::max() / 2);
    return static_cast<int64_t>(std::min(ticks, limit));
}

// Reads on to the next key packet of the chosen stream and leaves it in the state's packet;
// false when the input ends first.
bool readToKeyPacket(MpegReaderState& state)
{
    AVPacket* packet = state.packet.get();
    while (readPacket(state)) {
        if (packet->stream_index == state.streamIndex && (packet->flags & AV_PKT_FLAG_KEY))
            return true;
        av_packet_unref(packet);
    }
    return false;
}

int64_t packetTime(const AVPacket& packet)
{
    return packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

// The timestamp at the end of the chosen stream; the largest there is when unknown.
int64_t endTimestamp(const MpegReaderState& state)
{
    const AVFormatContext& context = *state.formatContext;
    const AVStream& stream = *context.streams[state.streamIndex];
    if (stream.duration != AV_NOPTS_VALUE && stream.duration > 0)
        return state.startTimestamp + stream.duration;
    if (context.duration != AV_NOPTS_VALUE && context.duration > 0)
        return state.startTimestamp + av_rescale_q(context.duration, kMicroseconds, stream.time_base);
    return std::numeric_limits<int64_t>::max();
}

// Moves the demuxer to a key packet of the chosen stream at or before `target` and leaves that
// packet in the state's packet; false when the demuxer cannot seek. Containers with an index
// land there at once. Those searched by their timestamps (MPEG-TS, MPEG-PS) land near the
// target on any packet, and their decoders would then wait for the next key frame, which
// may come after the target or not at all: those seeks are repeated earlier and earlier,
// one, three, seven ... seconds, the last a second before the start, where the search finds
// the first packet. A stream that marks no key packet at all is read from its start.
bool seekToKeyPacket(MpegReaderState& state, int64_t target)
{
    AVFormatContext* context = state.formatContext.get();
    const AVStream* stream = context->streams[state.streamIndex];
    int64_t step = std::max<int64_t>(1, av_rescale_q(1, AVRational{1, 1}, stream->time_base));
    const int64_t beforeStart = state.startTimestamp - step;
    int64_t aim = std::min(target, endTimestamp(state));
    for (;;) {
        if (av_seek_frame(context, state.streamIndex, aim, AVSEEK_FLAG_BACKWARD) < 0)
            return false;
        const bool found = readToKeyPacket(state);
        const int64_t time = found ? packetTime(*state.packet) : AV_NOPTS_VALUE;
        if (found && (time == AV_NOPTS_VALUE || time <= target))
            return true;
        if (aim <= beforeStart) {
            if (found)
                return true;
            return av_seek_frame(context, state.streamIndex, aim, AVSEEK_FLAG_BACKWARD) >= 0;
        }
        av_packet_unref(state.packet.get());
        aim = aim - beforeStart > step ? aim - step : beforeStart;
        step *= 2;
    }
}

// A seek that failed may have left the demuxer anywhere: a search through a stream without
// timestamps reads it to the end. A fresh demuxer led past as many packets as the reader has
// taken stands where the old one stood before the seek; the decoder has seen none of this.
bool returnToPacket(MpegReaderState& state, int64_t packets)
{
    FormatContextPtr fresh = openLocalFile(state.path.c_str());
    if (!fresh || avformat_find_stream_info(fresh.get(), nullptr) < 0)
        return false;
    AVPacket* packet = state.packet.get();
    for (int64_t i = 0; i < packets; ++i) {
        if (av_read_frame(fresh.get(), packet) < 0)
            return false;
        ++state.packetsRead;
        av_packet_unref(packet);
    }
    state.formatContext = std::move(fresh);
    return true;
}

std::string tag(const AVDictionary* metadata, const char* key)
{
    const AVDictionaryEntry* entry = av_dict_get(metadata, key, nullptr, 0);
    return entry && entry->value ? entry->value : std::string();
}

double durationOf(const AVFormatContext& context, const AVStream& stream)
{
    if (stream.duration != AV_NOPTS_VALUE && stream.duration > 0)
        return secondsOf(stream.duration, stream.time_base);
    if (context.duration != AV_NOPTS_VALUE && context.duration > 0)
        return static_cast<double>(context.duration) / AV_TIME_BASE;
    return -1.0;
}

} // namespace

MpegReader::MpegReader() = default;

void MpegReader::setDecoderThreads(int threads)
{
    m_decoderThreads = threads < 0 ? 1 : threads;
}

int MpegReader::decoderThreads() const
{
    return m_decoderThreads;
}

MpegReader::~MpegReader()
{
    close();
}

bool MpegReader::open(const char* url)
{
    close();
    m_state = std::make_unique<MpegReaderState>();
    m_state->packet.reset(av_packet_alloc());
    if (!url || !m_state->packet)
        return false;
    m_state->path = url;
    m_state->formatContext = openLocalFile(url);
    if (!m_state->formatContext)
        return false;
    AVFormatContext* context = m_state->formatContext.get();
    if (isTextOrStillImage(*context->iformat))
        return false;
    if (avformat_find_stream_info(context, nullptr) < 0)
        return false;
    av_dump_format(context, 0, url, 0);
    m_state->streamIndex = firstVideoStream(*context);
    if (m_state->streamIndex < 0)
        return false;
    m_state->startTimestamp = firstTimestamp(*context, *context->streams[m_state->streamIndex]);
    return openDecoder(*m_state, m_decoderThreads);
}

MpegFrame* MpegReader::read(bool clone)
{
    if (!m_state || !m_state->decoderOpen)
        return nullptr;
    FramePtr picture = nextPicture(*m_state);
    // The decoder keeps reading its output pictures as references for later ones: the
    // caller's own copy must not share their buffers.
    if (!picture || (clone && av_frame_make_writable(picture.get()) < 0))
        return nullptr;
    const int64_t shown = presentationTimestamp(*picture);

    SwsContext* scaler = m_state->grayScaler.release();
    auto* frame = new MpegFrame(picture.release(), &scaler, m_state->grayPlanes);
    m_state->grayScaler.reset(scaler);
    const AVStream* stream = m_state->formatContext->streams[m_state->streamIndex];
    frame->m_time = secondsOf(completingDts(*m_state, *frame->avFrame()), stream->time_base);
    frame->m_hasPresentationTime = shown != AV_NOPTS_VALUE;
    if (frame->m_hasPresentationTime)
        frame->m_presentationTime = secondsOf(shown - m_state->startTimestamp, stream->time_base);
    ++m_processedFrameCount;
    return frame;
}

bool MpegReader::seek(double seconds)
{
    if (!m_state || !m_state->decoderOpen || std::isnan(seconds))
        return false;
    if (seconds <= 0.0)
        return true;
    MpegReaderState& state = *m_state;
    const AVStream* stream = state.formatContext->streams[state.streamIndex];
    const int64_t target = state.startTimestamp + ticksAtOrBefore(seconds, stream->time_base);
    const int64_t packetsBefore = state.packetsRead;
    if (!seekToKeyPacket(state, target)) {
        av_packet_unref(state.packet.get());
        if (!returnToPacket(state, packetsBefore))
            state.finished = true;
        return false;
    }
    // The decoder forgets the pictures it holds and starts again at the key packet; the end
    // of input that may have been reached lies behind the reader now.
    avcodec_flush_buffers(state.codecContext.get());
    state.draining = false;
    state.finished = false;
    state.lastDts = state.packet->dts;
    if (state.packet->data)
        avcodec_send_packet(state.codecContext.get(), state.packet.get());
    av_packet_unref(state.packet.get());
    return true;
}

double MpegReader::startTime() const
{
    if (!m_state || m_state->streamIndex < 0)
        return 0.0;
    const AVFormatContext& context = *m_state->formatContext;
    const AVStream& stream = *context.streams[m_state->streamIndex];
    if (stream.start_time != AV_NOPTS_VALUE)
        return secondsOf(stream.start_time, stream.time_base);
    if (context.start_time != AV_NOPTS_VALUE)
        return static_cast<double>(context.start_time) / AV_TIME_BASE;
    return 0.0;
}

std::int64_t MpegReader::packetsRead() const
{
    return m_state ? m_state->packetsRead : 0;
}

VideoInfo MpegReader::info() const
{
    VideoInfo info;
    if (!m_state || !m_state->decoderOpen)
        return info;
    const AVFormatContext& context = *m_state->formatContext;
    const AVStream& stream = *context.streams[m_state->streamIndex];
    info.container = context.iformat->name;
    info.codec = m_state->codec->name;
    info.width = width();
    info.height = height();
    info.frameRate = fps();
    info.duration = durationOf(context, stream);
    info.creationTime = tag(context.metadata, "creation_time");
    if (info.creationTime.empty())
        info.creationTime = tag(stream.metadata, "creation_time");
    info.streamFrames = stream.nb_frames > 0 ? stream.nb_frames : 0;
    return info;
}

int64_t MpegReader::pos() const
{
    if (!m_state || !m_state->formatContext || !m_state->formatContext->pb)
        return -1;
    return m_state->formatContext->pb->pos;
}

int MpegReader::width() const
{
    return m_state && m_state->codecContext ? m_state->codecContext->width : -1;
}

int MpegReader::height() const
{
    return m_state && m_state->codecContext ? m_state->codecContext->height : -1;
}

double MpegReader::fps() const
{
    if (!m_state || !m_state->codecContext)
        return -1.0;
    AVFormatContext* context = m_state->formatContext.get();
    const AVRational rate = av_guess_frame_rate(context, context->streams[m_state->streamIndex], nullptr);
    return rate.den != 0 ? static_cast<double>(rate.num) / rate.den : 0.0;
}

bool MpegReader::isMJPEG() const
{
    if (!m_state || !m_state->codecContext)
        return false;
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(m_state->codecContext->codec_id);
    if (!descriptor)
        return false;
    return descriptor->id == AV_CODEC_ID_MJPEG || descriptor->id == AV_CODEC_ID_MJPEGB
           || descriptor->id == AV_CODEC_ID_MXPEG;
}

void MpegReader::close()
{
    m_state.reset();
}

int MpegReader::streamIndex() const
{
    return m_state ? m_state->streamIndex : -1;
}

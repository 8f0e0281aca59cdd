#include "MpegWriter.h"

#include "FfmpegPtr.h"
#include "MpegFrame.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

// Written against FFmpeg 5.1. Where older generations differ, this code does the following:
// - avcodec_encode_video2() is gone: avcodec_send_frame()/avcodec_receive_packet(), so one
//   picture may give no packet, one or several; all of them are written.
// - AVStream::codec is gone: the encoder context is allocated here, and the stream's codecpar
//   is filled from it once it is open.
// - CODEC_FLAG_GLOBAL_HEADER is AV_CODEC_FLAG_GLOBAL_HEADER; avcodec_close() is part of
//   avcodec_free_context().

// Members are declared so that destruction releases the packet, then the encoder, then the
// output context with its file.
struct MpegWriterState {
    AVStream* stream = nullptr;
    const AVOutputFormat* outputFormat = nullptr;
    OutputContextPtr formatContext;
    const AVCodec* codec = nullptr;
    int width = 0;
    int height = 0;
    CodecContextPtr codecContext;
    PacketPtr packet;
    SwsContextPtr rgbScaler;
    FramePtr rgbPicture;
    bool headerWritten = false;
    bool drained = false;
};

namespace {

constexpr int kGopSize = 25;
constexpr int kMaxTimeBaseTerm = 65535;
const char* const kFallbackFormat = "mpeg";

OutputContextPtr allocateOutputContext(const char* path, const char* container)
{
    AVFormatContext* context = nullptr;
    if (avformat_alloc_output_context2(&context, nullptr, container, path) < 0 || !context) {
        // No muxer claims the extension (or there is none): fall back to MPEG program stream.
        context = nullptr;
        avformat_alloc_output_context2(&context, nullptr, kFallbackFormat, path);
    }
    return OutputContextPtr(context);
}

bool setUpEncoder(MpegWriterState& state, int bitRate, double fps, const MpegWriterOptions& options)
{
    state.codecContext.reset(avcodec_alloc_context3(state.codec));
    AVCodecContext* context = state.codecContext.get();
    if (!context)
        return false;
    const AVRational timeBase = av_d2q(1.0 / fps, kMaxTimeBaseTerm);
    state.stream->time_base = timeBase;
    context->codec_id = state.codec->id;
    context->bit_rate = bitRate;
    context->width = state.width;
    context->height = state.height;
    context->time_base = timeBase;
    context->gop_size = kGopSize;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    if (state.outputFormat->flags & AVFMT_GLOBALHEADER)
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (options.constantRateFactor >= 0
        && av_opt_set_int(context->priv_data, "crf", options.constantRateFactor, 0) < 0)
        return false;
    if (options.preset && av_opt_set(context->priv_data, "preset", options.preset, 0) < 0)
        return false;
    if (avcodec_open2(context, state.codec, nullptr) < 0)
        return false;
    // The stream's parameters are taken after opening so that the extradata of a global
    // header reaches the muxer.
    return avcodec_parameters_from_context(state.stream->codecpar, context) >= 0;
}

bool openOutputFile(MpegWriterState& state, const char* path, const MpegWriterOptions& options)
{
    AVFormatContext* context = state.formatContext.get();
    if (options.describe)
        av_dump_format(context, 0, path, 1);
    if (!(state.outputFormat->flags & AVFMT_NOFILE) && avio_open(&context->pb, path, AVIO_FLAG_WRITE) < 0)
        return false;
    AVDictionary* muxerOptions = nullptr;
    if (options.indexFirst)
        av_dict_set(&muxerOptions, "movflags", "+faststart", 0);
    state.headerWritten = avformat_write_header(context, &muxerOptions) >= 0;
    av_dict_free(&muxerOptions);
    return state.headerWritten;
}

// The writer's own YUV420P picture at the encoder's size, allocated once.
AVFrame* rgbTarget(MpegWriterState& state)
{
    if (!state.rgbPicture) {
        state.rgbPicture.reset(av_frame_alloc());
        if (!state.rgbPicture)
            return nullptr;
        state.rgbPicture->format = AV_PIX_FMT_YUV420P;
        state.rgbPicture->width = state.width;
        state.rgbPicture->height = state.height;
        if (av_frame_get_buffer(state.rgbPicture.get(), 0) < 0) {
            state.rgbPicture.reset();
            return nullptr;
        }
    }
    // The encoder may still hold a reference to the last picture it was given.
    return av_frame_make_writable(state.rgbPicture.get()) >= 0 ? state.rgbPicture.get() : nullptr;
}

// The encoder reads the picture's planes as if they had the size it was opened with, so a
// picture of another size or layout is refused rather than read out of bounds.
bool fitsEncoder(const MpegWriterState& state, const AVFrame* picture)
{
    return picture && picture->format == AV_PIX_FMT_YUV420P && picture->width == state.width
           && picture->height == state.height;
}

// Writes one packet the encoder handed back; the muxer takes its data and leaves it blank.
bool writePacket(MpegWriterState& state)
{
    AVPacket* packet = state.packet.get();
    // Every picture lasts one unit of the time base. Encoders that leave the duration unset
    // would let a container that stores durations (MP4) give the last picture none, and a
    // player would not show it.
    if (packet->duration == 0)
        packet->duration = 1;
    av_packet_rescale_ts(packet, state.codecContext->time_base, state.stream->time_base);
    packet->stream_index = state.stream->index;
    return av_interleaved_write_frame(state.formatContext.get(), packet) >= 0;
}

struct PacketsWritten {
    bool any = false;   // at least one packet was written
    bool all = true;    // no packet failed, and the encoder reported no error
    bool ended = false; // the encoder has handed out everything it will (after a drain only)
};

// Writes every packet the encoder has ready.
PacketsWritten writeReadyPackets(MpegWriterState& state)
{
    PacketsWritten packets;
    for (;;) {
        const int received = avcodec_receive_packet(state.codecContext.get(), state.packet.get());
        // EAGAIN: the encoder wants more pictures before it hands back another packet.
        if (received == AVERROR(EAGAIN))
            return packets;
        // EOF: a drained encoder has handed out its last packet.
        if (received == AVERROR_EOF) {
            packets.ended = true;
            return packets;
        }
        // Any other failure is an error of the encoder.
        if (received < 0) {
            packets.all = false;
            return packets;
        }
        // A packet: into the file, whether or not an earlier one failed.
        const bool written = writePacket(state);
        packets.any = packets.any || written;
        packets.all = packets.all && written;
    }
}

// Sends one picture to the encoder and writes what comes back: true when at least one packet
// came back and every one was written.
bool encode(MpegWriterState& state, const AVFrame* picture)
{
    if (avcodec_send_frame(state.codecContext.get(), picture) < 0)
        return false;
    const PacketsWritten packets = writeReadyPackets(state);
    return packets.any && packets.all;
}

} // namespace

MpegWriter::MpegWriter() = default;

MpegWriter::~MpegWriter()
{
    close();
}

bool MpegWriter::open(const char* path, int bitRate, int width, int height, double fps)
{
    return open(path, bitRate, width, height, fps, MpegWriterOptions());
}

bool MpegWriter::open(const char* path, int bitRate, int width, int height, double fps,
                      const MpegWriterOptions& options)
{
    close();
    if (!path)
        return false;
    m_state = std::make_unique<MpegWriterState>();
    MpegWriterState& state = *m_state;
    state.width = width;
    state.height = height;

    state.formatContext = allocateOutputContext(path, options.container);
    if (!state.formatContext)
        return false;
    state.outputFormat = state.formatContext->oformat;

    state.codec = options.encoder ? avcodec_find_encoder_by_name(options.encoder)
                                  : avcodec_find_encoder(state.outputFormat->video_codec);
    if (!state.codec)
        return false;
    state.stream = avformat_new_stream(state.formatContext.get(), state.codec);
    if (!state.stream)
        return false;
    state.stream->id = static_cast<int>(state.formatContext->nb_streams) - 1;

    if (!setUpEncoder(state, bitRate, fps, options))
        return false;
    state.packet.reset(av_packet_alloc());
    if (!state.packet)
        return false;
    return openOutputFile(state, path, options);
}

bool MpegWriter::write(MpegFrame* frame)
{
    if (!isOpen() || m_state->drained || !frame || !fitsEncoder(*m_state, frame->avFrame()))
        return false;
    MpegWriterState& state = *m_state;
    return encode(state, frame->avFrame());
}

bool MpegWriter::writeRgb24(const std::uint8_t* rgb, int stride, std::int64_t pts)
{
    if (!isOpen() || m_state->drained || !rgb)
        return false;
    MpegWriterState& state = *m_state;
    AVFrame* picture = rgbTarget(state);
    if (!picture)
        return false;
    state.rgbScaler.reset(sws_getCachedContext(state.rgbScaler.release(), state.width, state.height, AV_PIX_FMT_RGB24,
                                               state.width, state.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                               nullptr, nullptr));
    if (!state.rgbScaler)
        return false;
    const std::uint8_t* const planes[] = {rgb};
    const int strides[] = {stride};
    if (sws_scale(state.rgbScaler.get(), planes, strides, 0, state.height, picture->data, picture->linesize) <= 0)
        return false;
    picture->pts = pts;
    return encode(state, picture);
}

bool MpegWriter::drain()
{
    if (!isOpen() || m_state->drained)
        return false;
    MpegWriterState& state = *m_state;
    state.drained = true;
    if (avcodec_send_frame(state.codecContext.get(), nullptr) < 0)
        return false;
    const PacketsWritten packets = writeReadyPackets(state);
    return packets.ended && packets.all;
}

void MpegWriter::close()
{
    if (!m_state)
        return;
    if (m_state->headerWritten)
        av_write_trailer(m_state->formatContext.get());
    m_state.reset();
}

bool MpegWriter::isOpen() const
{
    return m_state && m_state->headerWritten;
}

int MpegWriter::timeBaseNumerator() const
{
    return m_state && m_state->codecContext ? m_state->codecContext->time_base.num : 0;
}

int MpegWriter::timeBaseDenominator() const
{
    return m_state && m_state->codecContext ? m_state->codecContext->time_base.den : 1;
}

const char* MpegWriter::formatName() const
{
    return m_state && m_state->outputFormat ? m_state->outputFormat->name : "";
}

const char* MpegWriter::codecName() const
{
    return m_state && m_state->codec ? m_state->codec->name : "";
}

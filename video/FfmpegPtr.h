#pragma once

// Owning pointers for FFmpeg objects, private to the video code.
//
// Written against FFmpeg 5.1 (libavformat 59, libavcodec 59, libavutil 57, libswscale 6).
// Where older FFmpeg generations differ, this code does the following instead:
// - av_register_all() is gone: formats and codecs are registered by the libraries.
// - AVStream::codec is gone: the decoder context is allocated here and filled from the
//   stream's codecpar, so it is freed here too (avcodec_free_context, no avcodec_close).
// - avcodec_decode_video2() is gone: avcodec_send_packet()/avcodec_receive_frame().
// - av_free_packet() and stack AVPackets are gone: one av_packet_alloc()'d packet,
//   emptied with av_packet_unref() after each use.
// - av_frame_clone() only adds references to the decoder's buffers, which the decoder
//   still reads as reference pictures: a picture the caller may overwrite needs
//   av_frame_make_writable() as well.
// - Codec ids are renumbered between generations: compare with the AV_CODEC_ID_* names only.
// - AVCodec pointers are const.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <memory>

struct FormatContextDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextDeleter>;

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;

// A pool ends once let go and its last buffer has been freed.
struct BufferPoolDeleter {
    void operator()(AVBufferPool* pool) const { av_buffer_pool_uninit(&pool); }
};
using BufferPoolPtr = std::unique_ptr<AVBufferPool, BufferPoolDeleter>;

struct SwsContextDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;

// An output context owns its I/O context only when its muxer writes to a file the writer
// opened; avformat_free_context leaves that file open, so this deleter closes it first.
struct OutputContextDeleter {
    void operator()(AVFormatContext* context) const
    {
        if (context->pb && !(context->oformat->flags & AVFMT_NOFILE))
            avio_closep(&context->pb);
        avformat_free_context(context);
    }
};
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;

#pragma once

#include <memory>

struct AVCodecContext;
struct PictureBuffersState;

// Private to the video code: the memory a decoder decodes its pictures into. FFmpeg's own
// buffers are zeroed small pages, a fault each when first written; a lone pass on a short
// video spends as long on those as on decoding, since the decoder and the pictures read
// ahead hold dozens. These are the same pictures, laid out as FFmpeg lays them out (the
// same row strides), but many to a run of large pages (LargePages), and zero when new as
// FFmpeg's are.
//
// Pictures that the buffers have handed out stay valid after the buffers are gone; their
// memory is given back with the last of them. Decoders without direct rendering, hardware
// pictures and paletted formats keep FFmpeg's own buffers.
class PictureBuffers {
public:
    PictureBuffers();
    ~PictureBuffers();

    PictureBuffers(const PictureBuffers&) = delete;
    PictureBuffers& operator=(const PictureBuffers&) = delete;

    // Makes `context`, not yet opened, take its pictures from these buffers, from any of its
    // threads. The buffers must outlive the open decoder. Called on the reader's thread.
    void serve(AVCodecContext& context);

private:
    std::unique_ptr<PictureBuffersState> m_state;
};

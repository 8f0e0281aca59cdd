#pragma once

#include <cstdint>
#include <string>

// What an open video file says about itself, for reports and manifests: filled by
// MpegReader::info(), plain values the caller owns.
struct VideoInfo {
    // FFmpeg's name of the container format, e.g. "matroska,webm" or "mov,mp4,m4a,3gp,3g2,mj2".
    std::string container;
    // The decoder's name, e.g. "h264" or "ffv1".
    std::string codec;
    int width = 0;
    int height = 0;
    // As MpegReader::fps(): 0.0 when unknown.
    double frameRate = 0.0;
    // Seconds: the video stream's duration, else the container's; -1.0 when neither is known.
    double duration = -1.0;
    // The container's "creation_time" tag, else the video stream's, as FFmpeg gives it (for
    // MP4 "2024-05-01T10:00:00.000000Z"); empty when the file has none.
    std::string creationTime;
    // The number of pictures the stream's header declares; 0 when it declares none.
    std::int64_t streamFrames = 0;
};

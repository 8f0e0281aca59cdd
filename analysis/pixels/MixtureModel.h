#pragma once

#include "ParallelStripes.h"

#include <opencv2/core/mat.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

// The library's adaptive Gaussian-mixture background model (cv::BackgroundSubtractorMOG2 at
// its default parameters, learning at its automatic rate) for 8-bit three-channel frames,
// computed with the same single-precision arithmetic in the same order, so that its
// background images are identical to the library's to the last bit. Three things differ,
// none of them visible in the background:
// - the foreground mask is optional and tells no shadows apart (the library marks them 127);
// - eight pixels are updated at once, with each mode's weights, variances and means in
//   blocks of their own, so a frame reads only the modes its pixels use;
// - the blocks of a group's second to fifth modes are handed out as its pixels first need
//   them, so a scene that needs few modes a pixel keeps only those resident instead of the
//   full 100 bytes a pixel.
//
// Called from one thread at a time; apply() spreads its work over that thread and helper
// threads of the model's own, which sleep between calls.
class MixtureModel {
public:
    // Learns on up to `threads` threads; 0 means as many as the library's thread count.
    explicit MixtureModel(int threads = 0);
    ~MixtureModel();

    MixtureModel(const MixtureModel&) = delete;
    MixtureModel& operator=(const MixtureModel&) = delete;

    // Learns one CV_8UC3 frame. A frame of another size than the ones before starts the
    // model over, as the library's model does. With `foreground`, also marks each pixel as
    // the library classifies it before learning: 0 where it shows the background, else 255.
    void apply(const cv::Mat& frame, cv::Mat* foreground = nullptr);

    // Learns CV_8UC3 frames in order, exactly as one apply() call each would, but faster:
    // each part of the model learns all of them while it is in the cache.
    void applyAll(const std::vector<cv::Mat>& frames);

    // The model's background in the frames' channel order, as a CV_8UC3 image or, with
    // `depth` CV_32F, unrounded as CV_32FC3; empty before the first frame.
    void backgroundImage(cv::Mat& background, int depth = CV_8U) const;

    // Frames learnt since the model (last) started.
    int frames() const { return m_frames; }

    // For tests of the baseline code on processors with AVX2: with false, every model uses
    // only the baseline code from its next frame on. Thread-safe.
    static void setAvx2Allowed(bool allowed);

private:
    void start(cv::Size size);
    void release();
    void learn(const cv::Mat* frames, int count, cv::Mat* foreground);
    void touchPages(std::uint8_t* memory, std::size_t bytes);
    template <typename Value>
    void fillBackground(cv::Mat& background) const;

    cv::Size m_size;
    // Pixels a row of the model holds: the width rounded up to whole groups of eight.
    int m_stride = 0;
    // One mapping: the count of modes in use a pixel, each group's first mode, each group's
    // block numbers of its further modes, then the blocks; each part starts on a page.
    std::uint8_t* m_memory = nullptr;
    std::size_t m_bytes = 0;
    std::size_t m_firstModesOffset = 0;
    std::size_t m_extraModesOffset = 0;
    std::size_t m_blocksOffset = 0;
    // Blocks handed out so far, block 0 included; counted up by apply()'s threads.
    mutable std::atomic<std::uint32_t> m_blocksUsed{1};
    int m_frames = 0;
    // Also fills the background image, which changes nothing of the model.
    mutable ParallelStripes m_parallel;
};

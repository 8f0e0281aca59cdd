// Times N updates of a default-constructed MOG2 background model on synthetic colour frames:
// a still, textured scene with light sensor noise and a few boxes moving across it. Only the
// apply() calls are timed; building each frame is not. With --model tremora, times our own
// computation of the same model (MixtureModel) on the same frames instead of the library's.
//
// Usage: tremora-mog2-bench [--width W] [--height H] [--calls N] [--threads T]
//                           [--model library|tremora]

#include "MixtureModel.h"

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/background_segm.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Options {
    int width = 1920;
    int height = 1080;
    int calls = 100;
    int threads = cv::getNumberOfCPUs();
    bool ours = false; // our own computation of the same model instead of the library's
};

void printUsage(const char* program)
{
    std::printf("Usage: %s [--width W] [--height H] [--calls N] [--threads T]\n"
                "          [--model library|tremora]\n"
                "Times N calls (default 100) of MOG2 apply() on W x H RGB frames\n"
                "(default 1920 x 1080) on T threads (default: the number of cores)\n"
                "and prints the seconds they took. --model tremora times Tremora's own\n"
                "computation of the same model instead of the library's.\n",
                program);
}

bool parsePositive(const char* text, int& value)
{
    char* end = nullptr;
    const long parsed = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || parsed < 1 || parsed > 100000) {
        return false;
    }
    value = static_cast<int>(parsed);
    return true;
}

int* optionTarget(const char* name, Options& options)
{
    if (std::strcmp(name, "--width") == 0) {
        return &options.width;
    }
    if (std::strcmp(name, "--height") == 0) {
        return &options.height;
    }
    if (std::strcmp(name, "--calls") == 0) {
        return &options.calls;
    }
    if (std::strcmp(name, "--threads") == 0) {
        return &options.threads;
    }
    return nullptr;
}

bool parseModel(const char* text, Options& options)
{
    if (std::strcmp(text, "library") != 0 && std::strcmp(text, "tremora") != 0)
        return false;
    options.ours = std::strcmp(text, "tremora") == 0;
    return true;
}

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; i += 2) {
        if (std::strcmp(argv[i], "--model") == 0 && i + 1 < argc && parseModel(argv[i + 1], options))
            continue;
        int* target = optionTarget(argv[i], options);
        if (target == nullptr || i + 1 >= argc || !parsePositive(argv[i + 1], *target)) {
            std::fprintf(stderr, "%s: bad option '%s'\n", argv[0], argv[i]);
            return false;
        }
    }
    return true;
}

// Smooth colour blotches, so the model sees texture rather than a flat wall.
cv::Mat texturedScene(int width, int height)
{
    cv::Mat coarse(std::max(height / 16, 1), std::max(width / 16, 1), CV_8UC3);
    cv::RNG rng(7);
    rng.fill(coarse, cv::RNG::UNIFORM, 30, 226);
    cv::Mat scene;
    cv::resize(coarse, scene, cv::Size(width, height), 0, 0, cv::INTER_CUBIC);
    return scene;
}

// Sensor noise of a few grey levels, taken in turns so that no two neighbouring frames match.
std::array<cv::Mat, 3> noisePatterns(int width, int height)
{
    std::array<cv::Mat, 3> patterns;
    cv::RNG rng(11);
    for (cv::Mat& pattern : patterns) {
        pattern.create(height, width, CV_8UC3);
        rng.fill(pattern, cv::RNG::UNIFORM, 0, 5);
    }
    return patterns;
}

void drawMovingBoxes(cv::Mat& frame, int index)
{
    const int w = frame.cols;
    const int h = frame.rows;
    const int stepX = std::max(w / 150, 1);
    const int stepY = std::max(h / 120, 1);
    const cv::Rect first((index * stepX) % w, h / 3, std::max(w / 12, 2), std::max(h / 8, 2));
    const cv::Rect second(w / 2, (index * stepY) % h, std::max(w / 20, 2), std::max(w / 20, 2));
    const cv::Rect third(w - (index * stepX / 2) % w, h * 3 / 4, std::max(w / 6, 2), std::max(h / 16, 2));
    cv::rectangle(frame, first, cv::Scalar(0, 140, 255), cv::FILLED);
    cv::rectangle(frame, second, cv::Scalar(128, 0, 0), cv::FILLED);
    cv::rectangle(frame, third, cv::Scalar(250, 250, 250), cv::FILLED);
}

class FrameMaker {
public:
    FrameMaker(int width, int height)
        : m_scene(texturedScene(width, height))
        , m_noise(noisePatterns(width, height))
    {
    }

    void make(int index, cv::Mat& frame) const
    {
        const std::size_t count = m_noise.size();
        cv::add(m_scene, m_noise[static_cast<std::size_t>(index) % count], frame);
        cv::subtract(frame, m_noise[static_cast<std::size_t>(index + 1) % count], frame);
        drawMovingBoxes(frame, index);
    }

private:
    cv::Mat m_scene;
    std::array<cv::Mat, 3> m_noise;
};

struct Result {
    double seconds = 0.0;
    double lastForegroundShare = 0.0;
};

Result timeApplyCalls(const Options& options)
{
    const FrameMaker maker(options.width, options.height);
    const cv::Ptr<cv::BackgroundSubtractorMOG2> library = cv::createBackgroundSubtractorMOG2();
    MixtureModel ours;
    cv::Mat frame;
    cv::Mat foreground;
    std::chrono::steady_clock::duration spent{};
    for (int i = 0; i < options.calls; ++i) {
        maker.make(i, frame);
        const auto start = std::chrono::steady_clock::now();
        if (options.ours)
            ours.apply(frame, i + 1 == options.calls ? &foreground : nullptr);
        else
            library->apply(frame, foreground, -1.0);
        spent += std::chrono::steady_clock::now() - start;
    }
    Result result;
    result.seconds = std::chrono::duration<double>(spent).count();
    result.lastForegroundShare = static_cast<double>(cv::countNonZero(foreground)) / static_cast<double>(foreground.total());
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        printUsage(argv[0]);
        return 0;
    }
    Options options;
    if (!parseOptions(argc, argv, options)) {
        printUsage(argv[0]);
        return 2;
    }
    cv::setNumThreads(options.threads);
    try {
        const Result result = timeApplyCalls(options);
        // The foreground share shows the model really tracks the boxes: a few percent, not 0 or 100.
        std::printf("%s apply: %d calls, %dx%d RGB, %d threads, foreground %.1f%%, seconds %.6f\n",
                    options.ours ? "tremora mixture" : "mog2", options.calls, options.width, options.height, cv::getNumThreads(),
                    100.0 * result.lastForegroundShare, result.seconds);
    } catch (const cv::Exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
    return 0;
}

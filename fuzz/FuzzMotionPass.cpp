// libFuzzer target: any bytes, saved as a file, go through the whole analysis pass (open,
// decode, count, learn the background) and the map rendering, exactly as a job runs them.
// Besides the sanitizers' findings, a broken promise of the pass's interface aborts.

#include "MotionMap.h"
#include "MotionPass.h"

extern "C" {
#include <libavutil/log.h>
}

#include <QByteArray>
#include <QImage>

#include <opencv2/core/utility.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace {

// Bounds on the work of one input, so that the fuzzer spends its time on many inputs and
// not on a few long or huge videos. A mutated header easily claims a picture of many
// megapixels, and the background model alone keeps about a hundred bytes a pixel.
constexpr int kMaxPairs = 110;                        // a few pairs past the last learning pair
constexpr std::size_t kMaxPixels = 1920u * 1088u;

void require(bool condition, const char* what)
{
    if (condition)
        return;
    std::fprintf(stderr, "broken promise of the analysis pass: %s\n", what);
    std::abort();
}

bool sameSizeMaps(const cv::Mat& motionCount, const cv::Mat& background)
{
    return motionCount.size() == background.size() && motionCount.type() == CV_8UC1
           && background.type() == CV_8UC3;
}

// Renders the map as the job does at every refresh and checks what it gives.
void renderAndCheck(const cv::Mat& motionCount, const cv::Mat& background)
{
    const QImage map = MotionMap::render(motionCount, background);
    if (motionCount.empty()) {
        require(map.isNull(), "a map without counts");
        return;
    }
    require(map.width() == motionCount.cols && map.height() == motionCount.rows, "map size differs from the counts");
    require(map.format() == QImage::Format_RGB888, "map format");
}

class BoundedHooks final : public MotionPassHooks {
public:
    BoundedHooks(const cv::Mat& motionCount, const cv::Mat& background)
        : m_motionCount(motionCount)
        , m_background(background)
    {
    }

    bool cancelRequested() override
    {
        m_cancelAsked = m_tooLarge || m_pairs >= kMaxPairs;
        return m_cancelAsked;
    }

    void started() override
    {
        ++m_started;
        require(sameSizeMaps(m_motionCount, m_background), "maps of different sizes at the start");
        require(cv::countNonZero(m_motionCount) == 0, "counts not cleared at the start");
        m_tooLarge = m_motionCount.total() > kMaxPixels;
    }

    void positionChanged(std::int64_t bytes) override { require(bytes >= -1, "negative position"); }

    void pairAnalysed() override { ++m_pairs; }

    void refresh(Refresh) override
    {
        require(m_started == 1, "refresh before the start");
        renderAndCheck(m_motionCount, m_background);
    }

    int startedCount() const { return m_started; }
    int pairs() const { return m_pairs; }
    bool cancelAsked() const { return m_cancelAsked; }

private:
    const cv::Mat& m_motionCount;
    const cv::Mat& m_background;
    int m_started = 0;
    int m_pairs = 0;
    bool m_tooLarge = false;
    bool m_cancelAsked = false;
};

std::string g_folder;
std::string g_input;

void removeInputFile()
{
    std::remove(g_input.c_str());
    rmdir(g_folder.c_str());
}

bool writeInput(const std::uint8_t* data, std::size_t size)
{
    std::FILE* file = std::fopen(g_input.c_str(), "wb");
    if (!file)
        return false;
    const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

void analyse(const QByteArray& path)
{
    cv::Mat motionCount;
    cv::Mat background;
    BoundedHooks hooks(motionCount, background);
    const MotionPassOutcome outcome = MotionPass::run(path, MotionPassSettings{}, motionCount, background, hooks);

    switch (outcome) {
    case MotionPassOutcome::OpenFailed:
        require(hooks.startedCount() == 0 && hooks.pairs() == 0, "a failed open went on");
        require(motionCount.empty() && background.empty(), "a failed open touched the maps");
        break;
    case MotionPassOutcome::Canceled:
        require(hooks.cancelAsked(), "canceled without a request");
        [[fallthrough]];
    case MotionPassOutcome::Finished:
        require(hooks.startedCount() == 1, "started not reported once");
        require(sameSizeMaps(motionCount, background), "maps of different sizes at the end");
        require(hooks.pairs() <= kMaxPairs, "pairs past the cancel");
        break;
    case MotionPassOutcome::TimeOutOfRange:
        require(false, "a time refused by a pass that neither slices nor records event times");
        break;
    }
    renderAndCheck(motionCount, background);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // FFmpeg describes every input and complains about every broken packet; at thousands of
    // inputs a second that is all the fuzzer would do.
    av_log_set_level(AV_LOG_QUIET);
    // One thread, so that an input replays the same way and a timeout points at it.
    cv::setNumThreads(0);

    const char* temp = std::getenv("TMPDIR");
    std::string pattern = std::string(temp && *temp ? temp : "/tmp") + "/tremora-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    g_folder = pattern;
    g_input = g_folder + "/input";
    std::atexit(removeInputFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (!writeInput(data, size)) {
        std::perror(g_input.c_str());
        std::abort();
    }
    analyse(QByteArray::fromStdString(g_input));
    return 0;
}

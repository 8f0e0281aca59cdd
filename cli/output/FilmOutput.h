#pragma once

#include "FilmSteps.h"
#include "InputOutput.h"

#include <memory>

// NAME.timelapse.mp4 (--timelapse): the map as a film. The pass's steps wait on disk beside
// the film (FilmSteps) until the pass has ended, when the background and the scale are known;
// the film is then encoded from them (Film::write).
class FilmOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    FilmOutput(const QString& path, bool replaces, const MapToolOptions& options);
    void stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts) override;
    QString role() const override;
    QString write(FinishedInput& finished) override;

private:
    const MapToolOptions& m_options;
    FilmSteps::Writer m_steps;
    bool m_opened = false;
};

// With --combine and --timelapse: an input's steps, kept at PlannedInput::filmStepsPath for
// the combined film, which is made once every pass has ended.
class FilmStepsOutput final : public InputOutput {
public:
    using InputOutput::InputOutput;
    void stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts) override;
    QString role() const override;
    QString write(FinishedInput& finished) override;

private:
    FilmSteps::Writer m_steps;
    bool m_opened = false;
};

#pragma once

#include <QString>
#include <QStringList>

#include <opencv2/core/mat.hpp>

#include <atomic>

// NAME.timelapse.mp4: the map as a film, one picture per step of the time line, encoded from
// the steps the passes kept on disk (FilmSteps) once the background and the scale are known.
namespace Film {

// Pictures a second.
constexpr int kPicturesPerSecond = 25;

struct Settings {
    QString path;                 // the film, absolute
    bool overwrite = false;       // a file at `path` may be replaced
    double stepSeconds = 0.0;     // of the time line per picture, above 0
    // Picture k shows only the events of the last `windowSeconds` before its time (a multiple
    // of stepSeconds); 0: every event before it.
    double windowSeconds = 0.0;
    double scale = 8.5;           // events at the top of the map's colour scale
    QString name;                 // under each picture: the video's file name, or the combination's
    // The clock time the time line starts at, as containers record it; empty when unknown: the
    // pictures then tell the time on the line.
    QString lineClock;
    // Non-zero: stop, leaving no film.
    const std::atomic<int>* cancel = nullptr;
};

// Encodes the film of the steps in `stepFiles` (each written by one pass, in its order) over
// `background` (8-bit 3-channel R,G,B, the map's size): picture k, for every step k from the
// first step with a pair to the last, shows the events of the pairs whose time on the line is
// below (k + 1) × stepSeconds (within the window), drawn as MotionMap draws exact counts,
// above a strip with the time it reaches (the last picture: its last pair's) and the name.
// H.264 in MP4, written under a temporary name beside `path` and renamed into place when
// complete; nothing is left behind on failure or cancel. Holds one step's counts, the sum,
// and one picture at a time. The error, empty when the film is in place. Reentrant.
QString write(const Settings& settings, const QStringList& stepFiles, const cv::Mat& background);

} // namespace Film

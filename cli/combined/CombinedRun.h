#pragma once

#include "MapToolOptions.h"

#include <opencv2/core/mat.hpp>

#include <atomic>

class ProgressOutput;
class ReportFolder;

// tremora-map --combine NAME: every input of the run, video or manifest written by --data,
// adds up into one map (and with --data one set of data files) named NAME.
namespace CombinedRun {

// Plans the combined files (an existing one without --overwrite stops the run before any
// analysis), reads every input's picture size (the first known size is the map's; inputs of
// another size are reported one line each and left out), runs the passes and reads the
// manifests options.jobs at a time, then writes the combined files and, when `report` is
// given and prepared, the report with a card for every input and for the combined map.
// Returns the exit status as MapRun::run does: kExitFailure when any input was left out or
// failed, or nothing could be combined. Blocks; call from one thread at a time.
int run(const MapToolOptions& options, ProgressOutput& output, const std::atomic<int>& cancel,
        const cv::Mat& mask, ReportFolder* report = nullptr);

} // namespace CombinedRun

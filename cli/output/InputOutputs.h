#pragma once

#include "InputOutput.h"

#include <memory>
#include <vector>

using InputOutputList = std::vector<std::unique_ptr<InputOutput>>;

// The files each input writes, listed in one place. A new kind of file is one InputOutput of
// its own and one line in the list (InputOutputs.cpp); the run needs no change.
namespace InputOutputs {

// The outputs the run writes for `input`, in the order they are written: map, legend, counts,
// events, background, activity table, film, manifest (last, so that it names only complete
// files).
// Those not asked for are left out. Reentrant.
InputOutputList of(const PlannedInput& input, const MapToolOptions& options);

// With --combine, no input writes files of its own: only the activity table the combination
// reads, from `input.activityPath` (the run's own temporary file, replaced freely), with --data,
// the zones table at `input.zonesPath`, with --zones, and the film's steps at
// `input.filmStepsPath`, with --timelapse.
// Reentrant.
InputOutputList forCombination(const PlannedInput& input, const MapToolOptions& options);

// Asks each output in turn to write its file for `finished`, adding every file written to
// `finished.written`. While `finished` has gone well, each output is written in order: first,
// a file that appeared during the pass and is not to be replaced stops them all before any is
// written. The first error makes the input failed (outcome, error); from then on, as for an
// input that failed or was canceled before, only the outputs that record every outcome are
// written, and their errors count only when there was none before.
void writeAll(InputOutputList& outputs, FinishedInput& finished);

} // namespace InputOutputs

#pragma once

#include "MapToolOptions.h"

#include <QString>
#include <QStringList>

#include <vector>

// Which files each input of a run will write, decided before any video is analysed, so that
// an input that could only fail (its file exists, or an earlier input writes it) costs no pass.
struct PlannedInput {
    QString video;           // as given on the command line
    QString mapPath;         // absolute, clean paths; empty with --slice
    // With --slice: the path of the slice maps with "%1" where a slice's start goes
    // (OutputPlan::sliceFileName). Empty without --slice.
    QString slicePattern;
    // With --slice: seconds from the start of the slices' time line to the start of this
    // input's own (MotionPassSettings::sliceOffset), and the clock time that line starts at
    // (ISO 8601; empty when unknown, or when it is the video's own). Set by --combine.
    double sliceOffset = 0.0;
    QString sliceLineClock;
    QString legendPath;      // empty unless --legend
    QString countsPath;      // empty unless --counts
    QString backgroundPath;  // empty unless --background or --data
    QString eventsPath;      // the next three empty unless --data
    QString activityPath;
    QString zonesPath;       // empty unless --zones
    QString filmPath;        // empty unless --timelapse
    // With --timelapse and --combine: where the pass keeps its film's steps (FilmSteps), a
    // temporary file of the run's own.
    QString filmStepsPath;
    QString manifestPath;
    // The manifest at manifestPath records an analysis that was canceled and names no file:
    // the run writes its manifest over it even without --overwrite.
    bool replacesCanceledManifest = false;
    QString error;           // non-empty: this input is not analysed; the text says why

    // The files of this input in the order they are written: map, legend, counts, events,
    // background, activity, zones, film, manifest (last, so that a manifest names only complete
    // files).
    QStringList outputs() const;
};

namespace OutputPlan {

// The name a map gets, as the window's "Save All Maps" names it: the video's base name (its
// file name up to the first dot), a dot, `extension`. "clip.part1.mp4", "png" -> "clip.png".
QString mapFileName(const QString& video, const QString& extension);

// With --slice: "clip.slice-%1.png", where %1 stands for the slice's start as "HHhMMmSSs".
QString sliceFileName(const QString& video, const QString& extension);

// A slice's path: `pattern` (a path ending in a name from sliceFileName) with its last "%1"
// replaced by `label`. The folder and the video's name are taken as they are, whatever they
// hold ("%1", "%%", "{}"), unlike QString::arg, which would fill the first marker it finds.
QString slicePath(const QString& pattern, const QString& label);

// The per-pixel counts and the background beside the map: "clip.counts.png",
// "clip.background.png" (always PNG: lossless, so the map can be rebuilt from them).
QString countsFileName(const QString& video);
// The map with its explaining strip: "clip.legend.png".
QString legendFileName(const QString& video);
QString backgroundFileName(const QString& video);

// The files of --data beside the map: "clip.events.png", "clip.activity.csv", "clip.json".
QString eventsFileName(const QString& video);
QString activityFileName(const QString& video);
QString manifestFileName(const QString& video);
// The zones' table of --zones: "clip.zones.csv".
QString zonesFileName(const QString& video);

// The time-lapse film beside the map (--timelapse): "clip.timelapse.mp4".
QString filmFileName(const QString& video);

// The folder of `video`'s outputs: `outputDir` when given, else the video's own folder.
QString outputFolder(const QString& video, const QString& outputDir);

// Plans every input of `options` in order. An input gets an error, and is not analysed, when
// it is a manifest (read by --combine only; it claims no file), when
// one of its files exists and `options.overwrite` is off (a manifest of a canceled analysis,
// which names no file, does not count), or when an earlier planned input
// writes one of its files, or when one of its files would be one of the input videos, or,
// with --slice, when the length its container records tells that its slices would clash or
// replace files (SliceSet::clashBefore). Reads the file system; writes nothing.
std::vector<PlannedInput> plan(const MapToolOptions& options);

} // namespace OutputPlan

#pragma once

#include "MapToolOptions.h"
#include "MotionPass.h"
#include "OutputPlan.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <cstdint>
#include <vector>

// NAME.json: what another program needs to rely on the files of one video written with
// --data: the input, the video, the parameters, the outcome, the files with their sizes and
// checksums, and summary figures. Its form is fixed by cli/output/manifest.schema.json; a change
// that breaks a reader of that form raises kFormatVersion.
namespace Manifest {

constexpr int kFormatVersion = 1;
// What the manifest's "format" says, so that a reader knows the file for one.
constexpr char kFormatName[] = "tremora-map data";

enum class Outcome { Done, Failed, Canceled };

// A file of the input that is in place, and the role the manifest gives it ("map", "legend").
struct WrittenFile {
    QString role;
    QString path;
};

// The scene changes of a pass in steady light: how many, and the times (seconds from the
// video's start, as the activity table gives them) of the first kKeptTimes.
struct SceneChanges {
    static constexpr int kKeptTimes = 1000;

    void add(double time);

    std::int64_t count = 0;
    std::vector<double> times;
};

struct Content {
    const PlannedInput* input = nullptr;
    const MapToolOptions* options = nullptr;
    const MotionPassFacts* facts = nullptr;
    Outcome outcome = Outcome::Done;
    QString error;            // with Outcome::Failed
    std::vector<WrittenFile> written; // the files of this input in place, in the order written
    std::int64_t pairsWithMotion = 0;
    double mapScale = 0.0;    // the events at the top of the map's scale, with --scale; else 0
    const SceneChanges* sceneChanges = nullptr; // with --steady-light
    QJsonArray zones;         // with --zones: each zone's figures (ZonesOutput)
};

// True for an input that is a manifest rather than a video: its name ends in ".json" (any
// case). Reentrant.
bool namesManifest(const QString& path);

// The analysis parameters a run with `options` records under "parameters": those that decide
// the counts (blur, threshold, gap, learning pairs, mask, window) and, with --scale, the scale
// the map was drawn with (`mapScale`, 0 when not known). Reentrant.
QJsonObject parameters(const MapToolOptions& options, double mapScale);

// Every parameter that decides the counts and differs between two "parameters" objects, one
// line each ("blur false, not true", nested ones as "window.start_s"); the scale, which only
// draws the map, is not compared. A parameter one object lacks counts as none. Reentrant.
QStringList parameterDifferences(const QJsonObject& recorded, const QJsonObject& reference);

// The manifest as JSON. Reads the input video's and the written files' attributes, and the
// written files themselves for their checksums. Reentrant.
QJsonObject build(const Content& content);

// One entry of a manifest's "files": the role, the name (the file lies beside the manifest),
// the size and the SHA-256 of the file at `path`. Reads the file. Reentrant.
QJsonObject fileRecord(const QString& role, const QString& path);

// Writes `manifest` to `path` under a temporary name renamed into place, replacing an
// existing file only with `overwrite`. The error, empty on success. Reentrant.
QString write(const QString& path, const QJsonObject& manifest, bool overwrite);

// Whether the file at `path` is a manifest that records a canceled analysis and names no
// written file: a run stopped from outside (Ctrl+C, a scheduler canceling the task) leaves
// one, and running the input again is how it gets finished. Reads the file. Reentrant.
bool recordsCanceledAnalysis(const QString& path);

} // namespace Manifest

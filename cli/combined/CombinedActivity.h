#pragma once

#include <QDateTime>
#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

// NAME.activity.csv of --combine: the rows of every input's activity table in the order the
// inputs were given, each led by the input's video in a `file` column, with the inputs'
// columns (scene_change too when they were counted in steady light). `time_s` is put on
// one time line (seconds from the earliest input's start) when every input records the clock
// time it started at; otherwise each input's rows keep the times of their own video.
namespace CombinedActivity {

struct Source {
    QString file;          // the video, as written in the `file` column
    QString table;         // its activity table (pair,time_s,moving_pixels,new_events)
    QString creationTime;  // ISO 8601 as the container records it; empty when unknown
};

// A creation time as containers record it ("2024-05-01T10:00:00.000000Z"); invalid when it
// does not read. Reentrant.
QDateTime readCreationTime(const QString& text);

// Seconds of every source's start after the earliest one's, when every source has a
// readable creation time; nothing otherwise. Reentrant.
std::optional<std::vector<double>> startOffsets(const std::vector<Source>& sources);

// Writes the combined table to `path` under a temporary name renamed into place, replacing
// an existing file only with `overwrite`. `sceneChanges` receives the rows that are scene
// changes, -1 when the tables have no scene_change column. The error, empty on success.
// Reentrant.
QString write(const QString& path, const std::vector<Source>& sources, bool overwrite, std::int64_t* sceneChanges);

// NAME.zones.csv of --combine, made alike from the inputs' zones tables (`Source::table`):
// "file,zone,pair,time_s,moving_pixels,new_events". The error, empty on success. Reentrant.
QString writeZones(const QString& path, const std::vector<Source>& sources, bool overwrite);

} // namespace CombinedActivity

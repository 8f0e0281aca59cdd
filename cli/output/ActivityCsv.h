#pragma once

#include "MotionPass.h"

#include <QSaveFile>
#include <QString>

// NAME.activity.csv of one video: a header, then one row per analysed frame pair,
// "pair,time_s,moving_pixels,new_events" (and ",scene_change", 0 or 1, when the run counts in
// steady light), written as the pass counts them, so that the rows
// of a ten-hour video never sit in memory. The rows go to a temporary file beside the target,
// which becomes the target only in commit(); a file not committed is removed, so an
// interrupted run leaves no half-written table.
//
// Made, fed and committed on one thread at a time (the pass's while it runs).
class ActivityCsv {
public:
    static constexpr const char* kHeader = "pair,time_s,moving_pixels,new_events\n";
    static constexpr const char* kHeaderWithSceneChanges = "pair,time_s,moving_pixels,new_events,scene_change\n";

    // `sceneChanges`: the table has the scene_change column.
    ActivityCsv(const QString& path, bool sceneChanges);

    void add(const MotionPassHooks::PairRecord& record);

    // Puts the table in place of the target, replacing it only with `overwrite`. The error,
    // empty when the file is in place.
    QString commit(bool overwrite);

private:
    QString m_path;
    QSaveFile m_file;
    bool m_sceneChanges;
};

#pragma once

#include "CellEventTimes.h"
#include "ReportData.h"
#include "ReportPage.h"
#include "SliceSet.h"

#include <QImage>
#include <QJsonObject>
#include <QString>

#include <opencv2/core/mat.hpp>

// The files of a report's cards in its staging folder (maps/, data/), written as each input
// ends and, for slices and combined maps, once the run has ended. Every function returns the
// error, empty on success, and is reentrant: pool threads write their own inputs' files.
namespace ReportStaging {

// data/KEY.activity.js, with the seconds' scene changes when `sceneChanges` (a run in steady
// light), and, when `eventTimes` is not empty, data/KEY.cells.js; with `zones` (each zone's
// seconds, --zones), data/KEY.zones.js.
QString writeData(const QString& staging, const QString& key, const std::vector<ReportData::Second>& seconds,
                  bool sceneChanges, const CellEventTimes& eventTimes, int width, int height,
                  const std::vector<std::vector<ReportData::Second>>& zones = {});

// maps/KEY.png from a map the run did not write as a file of its own; `file` receives
// "maps/KEY.png".
QString writeMap(const QString& staging, const QString& key, const QImage& map, QString* file);

// maps/KEY.legend.png: the strip of `legend` below a map `mapHeight` pixels high, as a card
// shows it under the map.
QString writeLegendStrip(const QString& staging, const QString& key, const QImage& legend, int mapHeight);

// Copies `source` into the staging folder as `file` ("maps/KEY.png").
QString copy(const QString& staging, const QString& source, const QString& file);

// Copies the time-lapse film at `source` into the staging folder as maps/KEY.timelapse.mp4;
// `file` receives that name. Nothing, and no error, when there is no film at `source`.
QString copyFilm(const QString& staging, const QString& key, const QString& source, QString* file);

// How the run colours the map of a video it analyses (--scale): a card drawn from a
// manifest's exact counts follows the same rule, so that every card of a report reads alike.
struct MapColours {
    bool exact = false;     // --scale given: the exact counts; else the window's wrapping count
    bool automatic = false; // --scale auto: the top chosen from the map's own counts
    double scale = 0.0;     // --scale N: the events at the top
};

// The map of `events` (16-bit exact counts) over `background` as the run would have drawn it
// from the pass that counted them; `top` receives the events at the top of its scale.
QImage mapOfEvents(const cv::Mat& events, const cv::Mat& background, const MapColours& colours, double* top);

// The card's files of an input of --combine that is a manifest written by --data: its map
// (coloured as `colours` says) and legend strip from its files, the legend covering the time
// window the manifest records (and saying that light changes were ignored when it records
// steady light), and its activity table by second, with its scene changes. `manifest` receives the
// manifest itself.
QString writeManifestInput(const QString& staging, const QString& key, const QString& manifestPath,
                           const MapColours& colours, QJsonObject* manifest);

// The card of a slice (see SliceSet::Written) keyed `key`, drawing `parts` within the slice;
// copies its map and legend strip into the staging folder.
ReportCard sliceCard(const QString& staging, const QString& key, const SliceSet::Written& slice,
                     const std::vector<ReportPart>& parts, QString* error);

} // namespace ReportStaging

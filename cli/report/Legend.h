#pragma once

#include <QImage>
#include <QList>
#include <QStringList>
#include <QString>

#include "ZoneFile.h"

#include <vector>

// NAME.legend.png: the map with a strip below it that tells a reader who never ran this tool
// how to read it: the colour scale in events (and events per hour of footage), what the grey
// means, whose map it is, the time it covers and the mask.
namespace Legend {

struct Content {
    QString name;              // the video's file name, or the combined map's name
    QString timeSpan;          // what the map covers, ready to print; empty when unknown
    double scale = 8.5;        // events at the top of the colour scale
    double footageHours = 0.0; // hours of video analysed; 0 when unknown (no per-hour labels)
    QString mask;              // the mask's file name; empty when none was used
    bool steadyLight = false;  // counted in steady light: changes of light were not motion
    // Zones counted on their own (--zones): each outlined over the map and named, in pixel
    // coordinates of the map. The map file itself stays without them.
    std::vector<Zone> zones;
};

// What the strip under a map named `name` says: it covers `timeSpan` (see timeSpan() and
// combinedTimeSpan()), its colour scale reaches its top at `scale` events, it was made from
// `footageSeconds` of video (0 or less when unknown: no per-hour labels), with the masks at
// `maskPaths` (shown by file name, each once; empty paths stand for none), counted in steady
// light or not. Reentrant.
Content contentOf(const QString& name, const QString& timeSpan, double scale, double footageSeconds,
                  const QStringList& maskPaths, bool steadyLight);

// What a map covers: "2024-05-01 10:00:00 – 10:15:00 UTC" from `creationTime` (as
// containers record it) plus `fromSeconds`, lasting `seconds`; without a readable creation
// time "0:00:00 – 0:15:00 of the video". Empty when `seconds` is not known (below 0), or
// when either lies beyond any recording (MotionPass::kLatestTime).
QString timeSpan(const QString& creationTime, double fromSeconds, double seconds);

// A moment: "2024-05-01 10:15:00 UTC" from `creationTime` (as containers record it) plus
// `seconds`; without a readable creation time "0:15:00", the time in the video. Empty when it
// lies beyond any recording (MotionPass::kLatestTime). Reentrant.
QString timePoint(const QString& creationTime, double seconds);

// What a combined map covers: from the earliest start to the latest end when every input has
// a creation time (`creationTimes` and `seconds` side by side), else the number of files and
// the footage they hold. Empty when a length lies beyond any recording. Reentrant.
QString combinedTimeSpan(const QStringList& creationTimes, const QList<double>& seconds);

// The text size of the strip under a map `mapWidth` pixels wide: legible from 320 pixels
// wide to 4K without dwarfing the map.
int textPixels(int mapWidth);

// The counts that get a tick on a scale reaching its top at `scale` events: round steps from
// the first up to the top, which always ends the list; none closer than 15 % of the scale
// below the top, where its label would crowd the top's. Reentrant.
QList<double> ticks(double scale);

// The map with the strip below it; the strip is as wide as the map, and at least 320 pixels
// (a narrower map is centred above it). Text is drawn with the
// fonts the system has, so the caller must have a QGuiApplication. GUI-free threads may call
// it, one image per call.
QImage render(const QImage& map, const Content& content);

// A picture of a time-lapse film: the map as it is, at the top left, over a strip of the
// legend's paper and fonts with `time` (bold) and `name` on two lines. Its sides are even,
// as 4:2:0 video needs: an odd-sized map gets a column of paper at its right. Needs a
// QGuiApplication for the fonts, as render() does; any thread, one image per call.
QImage renderCaption(const QImage& map, const QString& name, const QString& time);

// The pictures of a time-lapse film, one after another in one image laid out as
// renderCaption() lays it out: the caller renders each map into the picture's top-left
// corner, and caption() paints the strip below. A film's pictures differ only in their map
// and time, so after the first nothing is allocated or cleared again. Needs a QGuiApplication
// for the fonts; one thread at a time.
class CaptionedPictures {
public:
    explicit CaptionedPictures(QSize mapSize);

    // The whole picture, Format_RGB888: the map's place at the top left, paper elsewhere until
    // caption() is called. Null when there was no memory for it.
    QImage& picture() { return m_picture; }
    // Paints the strip with `time` (bold) and `name`; the map's place is left as it is.
    void caption(const QString& name, const QString& time);

private:
    QImage m_picture;
    QImage m_strip; // painted in the format the painter draws fastest, then copied below the map
    int m_mapHeight = 0;
    int m_text = 0;
    int m_titleLine = 0;
};

} // namespace Legend

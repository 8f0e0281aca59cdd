#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <cstdint>
#include <utility>
#include <vector>

// A video whose data a card draws, placed on the card's time line.
struct ReportPart {
    QString key;          // names the video's data files ("3")
    double offset = 0.0;  // seconds of the card's line at which the video's own time starts
    QString videoHref;    // the video as a link from the report's folder, encoded
    bool playable = false;// a browser plays the video itself (MP4/H.264, WebM)
    QString name;         // the video's file name
};

// One card of a report: a map with what is known about it. A card stands for one input
// video, a slice of time of one, or a combined map; it draws the data of its parts on one
// time line, within [from, to) for a slice, and `legendFile`, when set, shows beside the map.
struct ReportCard {
    QString key;          // unique in the page; names the card's data files ("3")
    QString title;        // the heading: the video's file name
    QString sortName;     // cards are shown in the order of these
    QString videoHref;    // the video as a link from the report's folder, encoded; empty: none
    bool playable = false;// a browser plays the video itself (MP4/H.264, WebM)
    QString mapFile;      // the map's file in the report's folder ("maps/3.png"); empty: none
    QString legendFile;   // a legend image in the report's folder; empty: none
    QString filmFile;     // the map's time-lapse film in the report's folder; empty: none
    int width = 0;        // the video's size, which the map has
    int height = 0;
    QString status;       // "done", "failed" or "canceled"
    QString error;        // why it failed
    QString creationTime; // as the container records it (ISO 8601); empty when it does not
    std::vector<std::pair<QString, QString>> figures; // label and value, in order
    bool hasActivity = false; // some part's data/KEY.activity.js exists
    bool hasCells = false;    // some part's data/KEY.cells.js exists
    bool hasZoneSeries = false; // every part's data/KEY.zones.js exists
    std::vector<ReportPart> parts; // the videos drawn: this card's own for an input's card
    double from = -1.0;   // the window of the line in seconds; -1: the whole line
    double to = -1.0;
    bool ofAnInput = true;// the card of one input, not of a slice or a combined map
    // With --zones: each zone's figures as the manifest records them (name and polygon
    // among them); listed beside the map and outlined on it. Empty: none.
    QJsonArray zones;
};

// The report page: index.html from the template built into the tool, with one card per entry.
// Reentrant.
namespace ReportPage {

// `text` safe inside HTML text and quoted attribute values.
QString escapeHtml(const QString& text);
// `file` as a relative URL from `folder` (both absolute): every byte outside letters, digits,
// "-._~/" percent-encoded as UTF-8, so that "#", "%", spaces, quotes and non-ASCII names stay
// one path.
QString relativeHref(const QString& folder, const QString& file);
// Whether a current browser plays a video of this container and codec (as the manifest names
// them) in its own video element.
bool browserPlays(const QString& container, const QString& codec);
// Seconds as "1:02:03", "2:03" or "0:07"; "unknown" beyond any recording (MotionPass::kLatestTime).
QString clockText(double seconds);
// A share (0 to 1) as "12.5%", with more digits for a share that would show as 0.0%.
QString percentText(double share);

// The figures under every map about the counts it draws, after the card's own figures: the
// events in all, the most at one pixel, the share of pixels with motion and, for a map
// counted in steady light (`sceneChanges` 0 or more), its scene changes.
std::vector<std::pair<QString, QString>> countFigures(double eventsTotal, double maxEvents,
                                                      double pixelsWithEventsShare, std::int64_t sceneChanges = -1);
// The footage a card's map was made from as a clock; "unknown" below 0.
std::pair<QString, QString> footageFigure(double seconds);

// The card of one input from its manifest (see Manifest::build); `mapFile` as in ReportCard,
// `reportFolder` the folder the page ends up in (absolute), for the link to the video.
// `planError`, when set, is why the input was not analysed at all (no manifest).
ReportCard inputCard(const QString& key, const QString& video, const QJsonObject& manifest, const QString& planError,
                     const QString& mapFile, const QString& reportFolder);

// The page, its cards sorted by sortName. Empty when the template is missing from the tool.
QByteArray render(const QString& title, std::vector<ReportCard> cards);

// The page's other files ("report.css", "report.js") and their contents, from the tool.
std::vector<std::pair<QString, QByteArray>> assets();

} // namespace ReportPage

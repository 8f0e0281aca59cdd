#pragma once

#include "MapToolOptions.h"
#include "ZoneSpans.h"

#include <QJsonArray>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <opencv2/core/mat.hpp>

#include <map>
#include <cstdint>
#include <vector>

// The slice maps of a run (--slice). Passes hand over each slice's events as the slice ends;
// they wait as files in a temporary folder, so that the slices of a long video or of many
// videos take no memory, until the run has ended. Then every slice is summed over the inputs
// that reach into it, rendered on one scale for the whole run (chosen over every slice with
// --scale auto) over the background of the input it starts in, and written.
//
// A series is the slices of one time line: a video's own, or with --combine the one line all
// inputs lie on. addPiece() and addSource() may be called from any thread; the rest from the
// thread that made the set, before and after the passes.
class SliceSet {
public:
    struct Settings {
        double sliceSeconds = 0.0;
        double scale = 0.0;        // events at the top of the colour scale; 0 for --scale auto
        bool legends = false;      // also NAME.slice-….legend.png
        bool events = false;       // also NAME.slice-….events.png (16-bit exact counts)
        QString maskName;          // for the legends; empty when no mask was used
        bool overwrite = false;
        bool reportLegends = false; // a legend for the report beside each slice, --legend or not
        bool steadyLight = false;  // counted in steady light: the legends say so, the slices count scene changes
        // With --zones: the zones, outlined on the legends and counted in each slice's
        // figures, and the run's mask (empty for none), which decides their analysed pixels.
        std::vector<Zone> zones;
        cv::Mat mask;
    };

    // A slice written, for the report's card of it.
    struct Written {
        int series = 0;
        QString seriesName;
        QString lineClock;         // as addSource() was given it
        double from = 0.0;         // the slice on its series' time line, in seconds
        double to = 0.0;
        QString mapPath;
        QString legendPath;        // with Settings::reportLegends; in the set's folder without --legend
        std::vector<int> sources;  // the inputs in it, in the order given
        double eventsTotal = 0.0;
        double maxEvents = 0.0;
        double pixelsWithEventsShare = 0.0;
        double footageSeconds = -1.0; // pairs at their frame rates; -1 when a rate is unknown
        std::int64_t sceneChanges = -1; // pairs that were scene changes; -1 unless in steady light
        // With zones: each zone's figures over the slice's pairs alone, the same figures and
        // names as an input's manifest gives over the whole video (ZoneFigures), its times on
        // the series' time line.
        QJsonArray zones;
    };

    // What one zone saw in an input's pairs within one slice (with --zones), at the pairs'
    // times on the series' time line.
    struct ZoneSeen {
        std::int64_t pairsWithMotion = 0;
        double firstMotion = 0.0; // meaningful once a pair has motion
        double lastMotion = 0.0;
        std::map<std::int64_t, std::int64_t> eventsBySecond; // seconds with new events only

        void add(double lineTime, const ZoneSpans::Tally& tally);
    };

    explicit SliceSet(const Settings& settings);

    // A stretch of a series' time line, in seconds, where an input's pairs will lie.
    struct Span {
        double from = 0.0;
        double to = 0.0;
    };

    // Before any analysis, from the lengths the containers record: why a series of the run of
    // `options` named by `pattern`, whose pairs will lie in `spans` on a time line starting at
    // clock time `lineClock` (as addSource() takes it), could not be written whole: two of its
    // slices a day apart would share a name, or a file of one exists (without --overwrite).
    // Only the first kSlicesLookedAt slices are looked at: enough to find any clash of clock
    // times, and the rest are checked again as they are written. `subject` says what follows
    // ("'clip.mkv' is not analysed"). Empty when nothing stands in the way. Reads the file
    // system only. Reentrant.
    static QString clashBefore(const MapToolOptions& options, const QString& pattern, const QString& lineClock,
                               const std::vector<Span>& spans, const QString& subject);
    static constexpr int kSlicesLookedAt = 86401;

    // Why no slice can be kept (no temporary folder); empty when they can.
    QString error() const;

    // The series whose map files are named by `pattern` ("…/clip.slice-%1.png", %1 the
    // slice's start) and whose legends say `name`; the same pattern gives the same series.
    int series(const QString& pattern, const QString& name);

    // Pool threads. The events (16-bit) that began in slice `slice` of `series`, in the pairs
    // of the input at `source` (its place in the run), over `pairs` pairs of which
    // `sceneChanges` were scene changes; with zones, what each zone saw in those pairs. The
    // error, empty on success.
    QString addPiece(int series, int source, int slice, const cv::Mat& events, int pairs, int sceneChanges,
                     std::vector<ZoneSeen> zones = {});

    // Pool threads. The input at `source` has been analysed and belongs in its series: its
    // background (8-bit R,G,B), the seconds on the series' time line its pairs ran from and
    // to, its frame rate (0 when unknown) and the clock time the series' time line starts at
    // (ISO 8601 as containers record it; empty when unknown, and the slices are then named by
    // their start from the line's start). Only pieces of inputs added here are written.
    QString addSource(int series, int source, const cv::Mat& background, double from, double to, double frameRate,
                      const QString& lineClock);

    // Writes the slices of every series in the order the series were made. A series that
    // cannot be written whole (an existing file without overwrite, two slices a day apart
    // with one name) writes none and gives one error; `written` receives each file written.
    // `slices`, when given, receives every slice written, in order; the files it names in the
    // set's folder last as long as the set.
    QStringList write(QStringList& written, std::vector<Written>* slices = nullptr);

private:
    struct Piece {
        int source = 0;
        QString file;
        int pairs = 0;
        int sceneChanges = 0;
        std::vector<ZoneSeen> zones;
    };
    struct Source {
        QString background;  // file
        double from = 0.0;
        double to = 0.0;
        double frameRate = 0.0;
    };
    struct Series {
        QString pattern;
        QString name;
        QString lineClock;
        std::map<int, std::vector<Piece>> slices; // by slice
    };

    cv::Mat sumOf(const std::vector<Piece>& pieces, QString& error) const;
    QJsonArray zoneFiguresOf(const cv::Mat& sum, const std::vector<Piece>& pieces) const;
    // Why `slices` of a series cannot all be written; while `planning`, before any analysis,
    // the text ends with `subject` (what is not done because of it).
    static QString namesError(const Settings& settings, const QString& pattern, const QString& lineClock,
                              const std::vector<int>& slices, bool planning, const QString& subject);
    QString writeSeries(int index, double scale, QStringList& written, std::vector<Written>* slices) const;
    QString writeSlice(const Series& series, int slice, const std::vector<Piece>& pieces, double scale,
                       QStringList& written, Written& outcome) const;
    QString tempFile() const;
    int backgroundSource(int slice, const std::vector<Piece>& pieces) const;
    std::vector<int> writtenSlices(const Series& series) const;
    QString labelOf(const Series& series, int slice) const;
    double chooseScale(QString& error) const;

    Settings m_settings;
    QTemporaryDir m_folder;
    mutable QMutex m_mutex;
    std::vector<Series> m_series;
    std::map<int, Source> m_sources;
    mutable int m_files = 0;
};

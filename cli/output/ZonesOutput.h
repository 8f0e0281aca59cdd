#pragma once

#include "InputOutput.h"
#include "ZoneFile.h"

#include <QJsonArray>
#include <QSaveFile>

#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

// NAME.zones.csv (--zones): "zone,pair,time_s,moving_pixels,new_events", one row per zone
// and frame pair in which that zone saw motion, in the pairs' order and within a pair in the
// zones' order; the zone's name in double quotes. Written as the pass counts, put in place
// only once the pass has ended well. Also gathers each zone's figures for the manifest.
class ZonesOutput final : public InputOutput {
public:
    static constexpr const char* kHeader = "zone,pair,time_s,moving_pixels,new_events\n";

    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    ZonesOutput(const QString& path, bool replaces, const std::vector<Zone>& zones);
    void pairCounted(const MotionPassHooks::PairRecord& record) override;
    QString role() const override;
    // A zone without an analysed pixel in the video: the input fails.
    QString failureOf(const FinishedInput& finished) const override;
    // Puts the table in place and the zones' figures in `finished.zones`.
    QString write(FinishedInput& finished) override;

    // A zone's name as a CSV field: in double quotes, a quote in it doubled.
    static QByteArray quoted(const QString& name);
    // Where the quoted field that begins at `from` in `line` ends (just past its closing
    // quote), and its text in `field` when given; -1 when no quoted field begins there.
    static int quotedFieldEnd(const QByteArray& line, int from, QString* field = nullptr);

private:
    // What one zone saw over the pairs so far.
    struct Seen {
        std::int64_t newEvents = 0;
        std::int64_t pairsWithMotion = 0;
        double firstMotion = 0.0;
        double lastMotion = 0.0;
        // The second being summed (the floor of the pairs' times) and its events so far; the
        // busiest second before it (the earliest of equals) and its events.
        std::int64_t second = std::numeric_limits<std::int64_t>::min();
        std::int64_t secondEvents = 0;
        std::int64_t busiestSecond = 0;
        std::int64_t busiestEvents = 0;

        void add(double time, const ZoneSpans::Tally& tally);
        void closeSecond();
    };

    QJsonArray figuresOf(const FinishedInput& finished);

    QSaveFile m_file;
    const std::vector<Zone>& m_zones;
    std::vector<QByteArray> m_names;
    std::vector<Seen> m_seen;
};

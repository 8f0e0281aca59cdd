#pragma once

#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <opencv2/core/mat.hpp>

// A manifest written by --data given as an input of --combine: the video's results are taken
// from its files instead of decoding the video again, which makes the reduce step of a
// cluster run (one task per video with --data, one task combining their manifests) a matter
// of reading files.
namespace ManifestInput {

// What the manifest says, read and checked without touching the files it names.
struct Header {
    QString manifestPath;   // as given
    QString videoPath;      // the analysed video's absolute path, as the manifest records it
    int width = 0;
    int height = 0;
    QString creationTime;   // as the container records it; empty when it has none
    double footageSeconds = -1.0;  // pairs analysed at the frame rate; -1 when unknown
    QString maskPath;       // the mask the video was analysed with; empty when none
    QJsonObject parameters; // the analysis's parameters, as recorded
    QString eventsPath;     // absolute; the files lie beside the manifest
    QString backgroundPath;
    QString activityPath;   // empty when the manifest names no activity table
    QString zonesPath;      // empty when the manifest names no zones table (--zones)
    QJsonArray zoneFigures; // each zone's figures, as recorded; empty without zones
    QString error;          // non-empty: not usable; one line that names the manifest
};

// Reads the manifest at `path`: a manifest of this tool, of a format version it knows, of a
// finished analysis, naming its exact counts and background. Reentrant.
Header readHeader(const QString& path);

// The manifest's exact counts (16-bit, 1 channel) and, when `background` is not null, its
// background (8-bit, 3 channels R,G,B), after checking every file the manifest names against
// its recorded size and SHA-256, and the pictures' sizes, read from their headers, against the
// width and height the manifest records before they are decoded: a picture's header can ask
// for gigabytes that its few compressed bytes never fill. Leaving the background out saves decoding the largest file
// where it is not needed. The error, empty on success; a file that is missing or does not
// match leaves both empty. `events` is a view of `storage`, which a caller reading many
// manifests passes again each time, so that pictures of one size are decoded into the same
// memory rather than into new pages every time. Reentrant.
QString load(const QString& path, QImage& storage, cv::Mat* events, cv::Mat* background);

} // namespace ManifestInput

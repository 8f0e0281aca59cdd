#pragma once

#include <QJsonArray>
#include <QString>

#include <opencv2/core/types.hpp>

#include <vector>

// A named part of the picture: a polygon in pixel coordinates of the video (x to the right,
// y down from the top-left pixel), counted on its own (see ZoneSpans for its pixels).
struct Zone {
    QString name;
    std::vector<cv::Point> polygon;
};

// The --zones file: {"zones": [{"name": "door", "polygon": [[x, y], ...]}, ...]}.
namespace ZoneFile {

constexpr int kMostZones = 64;
constexpr int kLongestName = 64; // characters (Unicode code points)
constexpr int kFewestPoints = 3;
// Coordinates beyond this, either way, lie far outside any picture a video has; refusing
// them keeps the filling's fixed-point arithmetic in range.
constexpr int kLargestCoordinate = 1000000;

// The zones of the file at `path`, in their order. On failure none, and `error` set to one
// line naming the file and, where it is about one, the zone: the file cannot be read, is not
// JSON, has no "zones" list or an empty one, has more than kMostZones zones, a zone without a
// name, with an empty one, one longer than kLongestName characters or one an earlier zone has,
// a zone without a polygon, with fewer than kFewestPoints points, or with a coordinate that is
// not an integer within kLargestCoordinate. Reentrant.
std::vector<Zone> load(const QString& path, QString* error);

// The zones as the file writes them: [{"name": ..., "polygon": [[x, y], ...]}, ...].
QJsonArray toJson(const std::vector<Zone>& zones);

// The zones of a manifest's "parameters.zones" (as toJson writes them), taken as recorded.
std::vector<Zone> fromJson(const QJsonArray& zones);

// The polygons alone, in the zones' order.
std::vector<std::vector<cv::Point>> polygonsOf(const std::vector<Zone>& zones);

} // namespace ZoneFile

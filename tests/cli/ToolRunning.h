#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <opencv2/core/mat.hpp>

// Runs the real tremora-map executable (its path comes from the build) and generates clips
// for it. Test thread only.
namespace ToolRunning {

struct Result {
    bool finished = false;  // ended by itself within the time limit
    bool crashed = false;   // ended by a signal
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Starts tremora-map with `arguments`, waits up to `timeoutMs` and collects both streams.
Result run(const QStringList& arguments, int timeoutMs = 60000);

// A testsrc clip (moving colour bars and a counter), lossless FFV1, `frames` frames at 25/s;
// `filter` is appended to the source's filter chain when given (for example ",noise=...").
bool makeClip(const QString& path, int frames, const QString& size = QStringLiteral("96x64"),
              const QString& filter = QString());

QByteArray readAll(const QString& path);

// What `folder` holds, hidden and system entries (a dangling link) included, sorted by name.
QStringList entries(const QString& folder);

// A colour image file (NAME.background.png) as a CV_8UC3 matrix in the file's RGB order.
cv::Mat readBackground(const QString& path);

// A 16-bit grey PNG (NAME.events.png) as 32-bit counts; empty when the file is not one.
cv::Mat readEvents(const QString& path);

// Validates the JSON file `manifest` against the JSON schema `schema` with Debian's Python;
// the validator's complaint, empty when it is valid.
QString schemaComplaint(const QString& schema, const QString& manifest);

} // namespace ToolRunning

#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <opencv2/core/mat.hpp>

#include <memory>

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
// With `peakResidentKb`, runs it under /usr/bin/time and sets the most memory it held
// resident at once, in kilobytes (-1 when that could not be measured).
Result run(const QStringList& arguments, int timeoutMs = 60000, long* peakResidentKb = nullptr);

// A testsrc clip (moving colour bars and a counter), lossless FFV1, `frames` frames at 25/s;
// `filter` is appended to the source's filter chain when given (for example ",noise=...").
bool makeClip(const QString& path, int frames, const QString& size = QStringLiteral("96x64"),
              const QString& filter = QString());

// A testsrc clip (96 x 64, FFV1) of 60 frames whose last 30 lie 10^12 seconds after the
// first 30: far beyond any recording, as only a damaged or crafted file holds.
bool makeFarTimestampClip(const QString& path);

QByteArray readAll(const QString& path);

// The JSON object in the file at `path` (a manifest); empty when it holds none.
QJsonObject readJson(const QString& path);

// What `folder` holds, hidden and system entries (a dangling link) included, sorted by name.
QStringList entries(const QString& folder);

// A colour image file (NAME.background.png) as a CV_8UC3 matrix in the file's RGB order.
cv::Mat readBackground(const QString& path);

// A 16-bit grey PNG (NAME.events.png) as 32-bit counts; empty when the file is not one.
cv::Mat readEvents(const QString& path);

// Writes the 8-bit one-channel `mask` as a grey PNG a run's --mask reads.
bool saveMask(const QString& path, const cv::Mat& mask);

// Validates the JSON file `manifest` against the JSON schema `schema` with Debian's Python;
// the validator's complaint, empty when it is valid.
QString schemaComplaint(const QString& schema, const QString& manifest);

// The folders of a test of the executable: its clips, made once for all its test functions,
// and the tool's output, empty again for each of them so that a test sees only what it
// wrote. A test class derives from it after QObject: its initTestCase() checks clipsReady()
// and writes its clips to clip(NAME), its init() checks renew(), and its test functions run
// tool() and read what it wrote at out(NAME). A test that compares two runs calls renew()
// in between. Test thread only.
class Folders {
public:
    // `toolTimeoutMs` bounds each run of tool(); a test with a short time limit of its own
    // passes less, so that a run that hangs fails the one test function and not all of them.
    explicit Folders(int toolTimeoutMs = 120000);

    bool clipsReady() const;
    QString clipsPath() const;
    QString clip(const QString& name) const;

    // Replaces the output folder with a new, empty one; false when it could not be made.
    bool renew();
    QString outPath() const;
    QString out(const QString& name) const;

    // Runs the tool quietly with `arguments`, writing into the output folder or into `folder`.
    Result tool(const QStringList& arguments) const;
    Result toolInto(const QString& folder, const QStringList& arguments) const;

private:
    QTemporaryDir m_clips;
    std::unique_ptr<QTemporaryDir> m_out;
    int m_toolTimeoutMs;
};

} // namespace ToolRunning

#pragma once

#include <QFile>
#include <QString>

#include <opencv2/core/mat.hpp>

#include <memory>

class QTemporaryFile;

// The events of a time-lapse film's steps, kept on disk while the passes run: each step with a
// pair (MotionPassHooks::stepEnded) as one compressed record of the events that began in it, in
// the order the pass hands them over. Films are encoded from these records once the
// background and the scale are known, holding one step's counts at a time.
namespace FilmSteps {

// One step as written.
struct Step {
    int step = 0;
    double lastPairTime = 0.0;  // seconds, on the film's time line
};

// Appends the steps of one pass to a file: a temporary one of its own in a folder (removed
// with the writer), or a given path. One thread at a time.
class Writer {
public:
    Writer();
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // A new temporary file in `folder`, hidden, named after `name`. The error, empty on success.
    QString openTemporary(const QString& folder, const QString& name);
    // Creates (or empties) the file at `path`. The error, empty on success.
    QString open(const QString& path);
    // Adds a step; `counts` is 16-bit 1-channel. After a failure the writer refuses
    // everything, and error() says why.
    void add(const Step& step, const cv::Mat& counts);
    // Flushes what was added. The error of the first failure, empty when all went well.
    QString finish();
    // The file's path; empty before open.
    QString path() const;
    const QString& error() const { return m_error; }

private:
    std::unique_ptr<QTemporaryFile> m_temporary;
    QFile m_file;
    QFile* m_out = nullptr;
    QString m_error;
};

// Reads the steps of one file in their order, opening the file only while it reads, so that
// the steps of many passes can be read side by side. One thread at a time.
class Reader {
public:
    explicit Reader(const QString& path);

    // Reads the next step's header; false at the end of the file or after an error.
    bool next();
    // The step read by next().
    const Step& step() const { return m_step; }
    // Adds (`sign` 1) or subtracts (-1) the counts of the step read by next() to `sum`
    // (32-bit signed, of the step's size). False when the record cannot be read.
    bool addTo(cv::Mat& sum, int sign);
    // Why reading stopped early; empty at a clean end.
    const QString& error() const { return m_error; }

private:
    QString m_path;
    qint64 m_offset = 0;
    qint64 m_dataOffset = 0;
    quint32 m_dataBytes = 0;
    int m_rows = 0;
    int m_cols = 0;
    Step m_step;
    QString m_error;
};

} // namespace FilmSteps

#pragma once

#include <QString>
#include <QtGlobal>

#include <vector>

class QIODevice;

// Progress percentage of a file, by the rule of the window's rows: the reader's byte position
// times 100 over the file size, truncated; 0 for a file of size 0.
qint64 progressPercent(qint64 position, qint64 fileSize);

// What a run tells its user, on one device (standard error in the program). Messages about
// single files go on lines of their own; on a terminal a block below them shows the running
// files and is redrawn in place. Used by the thread that drives the run only.
class ProgressOutput {
public:
    enum class Style {
        Quiet, // errors only
        Lines, // one line when a file starts, one when it ends (a pipe, a log file)
        Live,  // files' end lines plus a block redrawn in place with ANSI cursor movement
    };

    struct RunningFile {
        QString name;
        qint64 percent;
    };

    struct Snapshot {
        std::vector<RunningFile> running;
        int finishedFiles = 0;
        int totalFiles = 0;
        float framesPerSecond = 0.0f;
    };

    // The block is redrawn at most this often, whatever the caller's pace.
    static constexpr qint64 kRedrawIntervalMs = 250;

    // `width` is the terminal's width in columns (0: unknown); Live lines are cut to fit
    // so that none wraps and the cursor movement stays exact.
    ProgressOutput(QIODevice& device, Style style, int width = 0);

    void started(const QString& video);
    void done(const QString& video, const QString& mapPath);
    void canceled(const QString& video);
    // Printed in every style.
    void error(const QString& text);

    // Live only: draws `snapshot` if the block is not on screen or was drawn
    // kRedrawIntervalMs or more before `nowMs` (any monotonic clock in milliseconds).
    void show(const Snapshot& snapshot, qint64 nowMs);
    // Takes the block off the screen; the run's lines stay.
    void finish();

private:
    void printLine(const QString& line);
    void eraseBlock();
    QString fitted(const QString& line) const;

    QIODevice& m_device;
    Style m_style;
    int m_width;
    int m_blockLines = 0;
    qint64 m_lastDrawMs = 0;
};

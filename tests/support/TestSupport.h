#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <vector>

// Helpers shared by the test executables: generating clips with the ffmpeg command and
// keeping settings away from the user's own. Called from test code on the test's thread.
namespace TestSupport {

// Runs `ffmpeg -hide_banner -loglevel error -nostdin -y ARGS`; true when it exits 0.
// On failure the command's error output is appended to *error when given.
bool runFfmpeg(const QStringList& args, QString* error = nullptr);

// Encodes raw frames (each width*height*bytes-per-pixel bytes of `inputPixelFormat`)
// into `path` with `outputArgs` (for example {"-c:v", "ffv1"}), `fps` frames a second.
bool writeRawClip(const QString& path, int width, int height,
                  const std::vector<QByteArray>& frames,
                  const QStringList& outputArgs = {"-c:v", "ffv1"},
                  const QString& inputPixelFormat = QStringLiteral("gray"), int fps = 25);

// The bytes of the file at `path`; empty when it cannot be read.
QByteArray readFile(const QString& path);

// Writes `content` to `path` directly (not under a temporary name); true when all of it was.
bool writeFile(const QString& path, const QByteArray& content);

// A grey frame of one value, the building block of exact-count clips.
QByteArray grayFrame(int width, int height, unsigned char value);

// A PNG of `width` x `height` grey pixels of `bitDepth` bits (8 or 16), all black, with valid
// checksums and deflated as far as zlib goes: 40000 x 40000 at 16 bits holds 3.2 GB of
// pixels in about 3 MB, the picture whose header alone must be enough to refuse it.
// Empty on failure.
QByteArray blackGreyPng(int width, int height, int bitDepth);

// The most memory this process has held resident at once so far, in kilobytes.
long peakResidentKilobytes();

// True once process `pid` has handlers for all of `signalNumbers`, i.e. its start-up got that
// far: a signal sent earlier would end it the default way and prove nothing.
bool catchesSignals(qint64 pid, const std::vector<int>& signalNumbers);

// Points QSettings (native and ini formats, user and system scope) at a fresh temporary
// folder for as long as the object lives, so a test never reads or writes real settings.
class ScopedSettings {
public:
    ScopedSettings();
    QString path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
};

} // namespace TestSupport
